#include "ChipMbbSlice/TraceSetup.h"

#include <cstdlib>

namespace ChipMbbSlice {

DualLog::Facility sliceLog{"ChipMbbSlice"};

namespace {

std::uint32_t qtIdCounter = 0;

}  // namespace

std::string qtFileName() {
   std::string name = "ChipSlice-mbbslice";
   if (std::getenv("FLASHLOGDIR") == nullptr) name += "-%d";
   name += ".qt";
   return name;
}

void initQt() {
   FlashLog::Handle& handle = FlashLog::defaultHandle();
   if (handle.isOpen()) return;
   if (FlashLog::disabledByEnv()) return;
   handle.maxStringLenIs(80);
   FlashLog::LevelSizes sizes{64, 64, 64, 64, 64, 64, 64, 64, 64, 16384};
   // Everything of the slice runs on the agent's one thread, so records need no lock.
   handle.open(qtFileName(), sizes, FlashLog::Writers::oneThread);
}

std::uint32_t getNextQtId() {
   return ++qtIdCounter;
}

}  // namespace ChipMbbSlice
