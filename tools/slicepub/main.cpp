// The publisher: announces single match tables under a root, fills them with routes, churns
// them, waits each time until the agent host has every change in hardware, and reports.

#include <iostream>

#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/PublisherArgs.h"

namespace {

const char* usage =
    "usage: slicepub --root NAME [--profile chip.json] [--table-info PATH] [--quiet] [options]\n";

}  // namespace

int main(int argc, char** argv) {
   SliceSystem::Args args(argc, argv);
   bool help = args.flag("help");
   std::string root = args.text("root");
   std::string profilePath = args.text("profile");
   std::string tableInfoPath = args.text("table-info", "mbb/tableInfo");
   bool quiet = args.flag("quiet");
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   std::string error;
   if (!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, profile, error)) {
      std::cerr << "slicepub: " << error << "\n";
      return 2;
   }
   SliceSystem::PublisherOptions options;
   bool parsed = SliceSystem::publisherOptionsParse(args, profile, options, error);
   if (help) {
      std::cout << usage << SliceSystem::publisherArgsUsage;
      return 0;
   }
   if (!parsed || !args.error().empty() || root.empty()) {
      std::cerr << "slicepub: "
                << (!parsed        ? error
                    : root.empty() ? "--root is required"
                                   : args.error())
                << "\n"
                << usage << SliceSystem::publisherArgsUsage;
      return 2;
   }
   if (!quiet)
      options.log = [](const std::string& line) { std::cout << "slicepub: " << line << std::endl; };

   Keel::EventLoop loop;
   SliceSystem::ShmPublishTarget target(loop, root, tableInfoPath);
   SliceSystem::Publisher publisher(target, options);
   SliceSystem::PublisherReport report = publisher.run();
   std::cout << "slicepub report (root " << root << "):\n" << report.text() << std::flush;
   return report.ok() ? 0 : 1;
}
