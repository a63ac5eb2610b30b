#pragma once

// Placement data blocks as the dumps print them.

#include <string>

#include "ChipSdk/PlcmtData.h"

namespace ChipModel {

// "action: group 0x1f vectors 4, payload: 0a 00 00 01", or why the block cannot be read.
std::string plcmtDataText(const ChipSdk::PlcmtDataView& view);
std::string plcmtDataText(const ChipSdk::PlcmtDataBlock& block);

// Writes all of text to a socket or file; false when the other end is gone. Never raises
// SIGPIPE.
bool fdWrite(int fd, const std::string& text);

}  // namespace ChipModel
