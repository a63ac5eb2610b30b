// Prints a trace file as text, one line per record, newest last. What could not be decoded is
// reported on stderr and makes the exit status 1; the records before it are still printed.

#include <cstdio>
#include <iostream>

#include "FlashLog/Decoder.h"

int main(int argc, char** argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s <trace file>\n", argv[0]);
      return 2;
   }
   const FlashLog::DecodedFile file = FlashLog::decodeFile(argv[1]);
   FlashLog::print(file, std::cout);
   std::cout.flush();
   if (file.numDroppedRecords != 0) {
      std::fprintf(stderr, "%s: %llu records were dropped while writing\n", argv[1],
                   static_cast<unsigned long long>(file.numDroppedRecords));
   }
   for (const std::string& problem : file.problems) {
      std::fprintf(stderr, "%s: %s\n", argv[1], problem.c_str());
   }
   return file.problems.empty() ? 0 : 1;
}
