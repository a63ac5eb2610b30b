#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

namespace SliceSystem {

// The tools' command lines go through CLI11. Its own range check lets "nan" through and its
// integer conversion silently narrows, so every number a tool takes is checked here instead:
// finite, written in full, and inside the range the option allows.

// Accepts a finite number in [min, max].
CLI::Validator numberIn(double min, double max);
// Accepts a whole number (decimal or C notation) in [min, max], refusing what overflows.
CLI::Validator countIn(std::uint64_t min, std::uint64_t max);

// Accepts a name that can stand in a shared segment's name as it is: 1 to `maxSize` letters,
// digits, '_' and '-'.
CLI::Validator plainName(std::size_t maxSize);

// Serves and shares shared segments with the group of that name as well as with this user
// (Vault::shmTrustedGroupIs); false, with the reason, when there is no such group.
bool trustedGroupNamed(const std::string& name, std::string& error);

// Parses the command line; the exit status to end with when the tool should not go on (0 after
// --help, 2 with the error and the usage on stderr after a bad line).
std::optional<int> argsParse(CLI::App& app, int argc, char** argv);

}  // namespace SliceSystem
