// Prints a trace file as text, one line per record, newest last. What could not be decoded is
// reported on stderr and makes the exit status 1; the records before it are still printed.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "FlashLog/Decoder.h"

int main(int argc, char** argv) {
   CLI::App app{"Prints a binary trace file as text, one line per record.", "flashlogdecode"};
   std::string path;
   app.add_option("file", path, "the trace file")->required();
   CLI11_PARSE(app, argc, argv);
   std::error_code ec;
   if (!std::filesystem::is_regular_file(path, ec)) {
      std::fprintf(stderr, "flashlogdecode: %s: %s\n", path.c_str(),
                   std::filesystem::exists(path, ec) ? "not a regular file" : "no such file");
      return 2;
   }
   const FlashLog::DecodedFile file = FlashLog::decodeFile(path);
   FlashLog::print(file, std::cout);
   std::cout.flush();
   if (file.numDroppedRecords != 0) {
      std::fprintf(stderr, "%s: %llu records were dropped while writing\n", path.c_str(),
                   static_cast<unsigned long long>(file.numDroppedRecords));
   }
   for (const std::string& problem : file.problems) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), problem.c_str());
   }
   return file.problems.empty() ? 0 : 1;
}
