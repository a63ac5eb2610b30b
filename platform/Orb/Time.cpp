#include "Orb/Time.h"

namespace Orb {

namespace {

Ptr<TimeSource>& activitySource() {
   static Ptr<TimeSource> source = ptrNew<RealTimeSource>();
   return source;
}

}  // namespace

Ptr<TimeSource> activityTimeSource() {
   return activitySource();
}

void activityTimeSourceIs(Ptr<TimeSource> source) {
   activitySource() = source ? std::move(source) : ptrNew<RealTimeSource>();
}

}  // namespace Orb
