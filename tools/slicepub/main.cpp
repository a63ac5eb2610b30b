// The publisher: announces single match tables (and with --ecmp a triple) in its directory
// under a root, fills them with routes, churns them, waits each time until the agent host has
// every change in hardware, and reports.

#include <signal.h>

#include <iostream>

#include "ChipModel/ChipProfile.h"
#include "Keel/EventLoop.h"
#include "SliceSystem/Args.h"
#include "SliceSystem/PublishTarget.h"
#include "SliceSystem/Publisher.h"
#include "SliceSystem/PublisherArgs.h"
#include "SliceSystem/SignalWatch.h"

int main(int argc, char** argv) {
   CLI::App app{
       "One publisher run: announces tables under a root, publishes, churns and re-adds, "
       "waiting each time until the agent host has every change in hardware. Exit "
       "status 0 when everything converged with statuses equal to configurations.",
       "slicepub"};
   std::string root;
   std::string profilePath;
   std::string name = "slicepub";
   std::string dirPrefix = "mbb/publishers/";
   bool quiet = false;
   app.add_option("--root", root, "root of the shared tables")->required();
   app.add_option("--profile", profilePath, "chip profile (JSON; default: the built-in one)");
   app.add_option("--name", name,
                  "the publisher's name: its directory and the feature agent names it announces "
                  "(letters, digits, '_' and '-', at most 64)")
       ->check(SliceSystem::plainName(64));
   app.add_option("--dir-prefix", dirPrefix, "where publishers' directories are");
   app.add_flag("--quiet", quiet, "no progress lines");
   std::string group;
   app.add_option("--group", group,
                  "share the tables with this group (a host of another user that trusts it)");
   SliceSystem::PublisherArgs pubArgs;
   SliceSystem::publisherArgsAdd(app, pubArgs);
   if (auto status = SliceSystem::argsParse(app, argc, argv)) return *status;
   ChipModel::ChipProfile profile = ChipModel::ChipProfile::defaultProfile();
   SliceSystem::PublisherOptions options;
   std::string error;
   if ((!profilePath.empty() && !ChipModel::chipProfileLoad(profilePath, profile, error)) ||
       !SliceSystem::publisherOptionsFor(pubArgs, profile, options, error)) {
      std::cerr << "slicepub: " << error << "\n";
      return 2;
   }
   if (!group.empty() && !SliceSystem::trustedGroupNamed(group, error)) {
      std::cerr << "slicepub: " << error << "\n";
      return 2;
   }
   if (!quiet)
      options.log = [](const std::string& line) { std::cout << "slicepub: " << line << std::endl; };

   // SIGINT and SIGTERM alike unwind the run, so that its segments go with it.
   struct Stopped {
      int signo;
   };
   Keel::EventLoop loop;
   SliceSystem::SignalWatch signals(loop, {SIGINT, SIGTERM},
                                    [](int signo) { throw Stopped{signo}; });
   try {
      options.publisherName = name;
      SliceSystem::ShmPublishTarget target(loop, root, name, dirPrefix);
      SliceSystem::Publisher publisher(target, options);
      SliceSystem::PublisherReport report = publisher.run();
      std::cout << "slicepub report (root " << root << "):\n" << report.text() << std::flush;
      return report.ok() ? 0 : 1;
   } catch (const Stopped& stopped) {
      std::cerr << "slicepub: stopped by signal " << stopped.signo << "\n";
      return 128 + stopped.signo;
   } catch (const std::exception& e) {
      // Another publisher on the root, a segment of another user, ...
      std::cerr << "slicepub: cannot publish under " << root << ": " << e.what() << "\n";
      return 1;
   }
}
