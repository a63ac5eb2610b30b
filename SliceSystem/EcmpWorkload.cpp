#include "SliceSystem/EcmpWorkload.h"

#include <algorithm>

#include "Brio/Brio.h"
#include "ChipSdk/PlcmtData.h"

namespace SliceSystem {

namespace {

// Keys by kind, apart from each other and from the selector's fallback group key; a group key
// leaves room for the member bits below it.
constexpr std::uint64_t nextHopKeyBase = std::uint64_t{1} << 40;
constexpr std::uint64_t groupKeyBase = 0x100000;
constexpr std::uint32_t vectorSlots = ChipMbbShared::SelMbrEntryKey::numSubIndices;
constexpr std::uint32_t maxVectors = ChipMbbShared::SelMbrEntryKey::numVectors;

}  // namespace

const char* ecmpTableName(EcmpTable table) {
   switch (table) {
      case EcmpTable::nextHop:
         return "next hop";
      case EcmpTable::group:
         return "group";
      case EcmpTable::member:
         return "member";
      case EcmpTable::route:
         return "route";
   }
   return "?";
}

const char* ecmpChangeName(EcmpChange change) {
   switch (change) {
      case EcmpChange::add:
         return "add";
      case EcmpChange::modify:
         return "modify";
      case EcmpChange::activate:
         return "activate";
      case EcmpChange::deactivate:
         return "deactivate";
      case EcmpChange::repoint:
         return "re-point";
      case EcmpChange::repointSole:
         return "re-point sole active";
      case EcmpChange::del:
         return "delete";
   }
   return "?";
}

const char* ecmpPhaseName(EcmpPhaseKind kind) {
   switch (kind) {
      case EcmpPhaseKind::build:
         return "ecmp build";
      case EcmpPhaseKind::flap:
         return "ecmp member flaps";
      case EcmpPhaseKind::repoint:
         return "ecmp re-points";
      case EcmpPhaseKind::resize:
         return "ecmp members added and removed";
      case EcmpPhaseKind::replace:
         return "ecmp groups replaced";
      case EcmpPhaseKind::retire:
         return "ecmp next hops removed";
      case EcmpPhaseKind::teardown:
         return "ecmp teardown";
   }
   return "?";
}

std::uint64_t EcmpCounts::total() const {
   std::uint64_t sum = 0;
   for (const auto& row : count) {
      for (std::uint64_t n : row) sum += n;
   }
   return sum;
}

std::string EcmpCounts::text() const {
   std::string out;
   for (std::size_t t = 0; t < numEcmpTables; ++t) {
      for (std::size_t c = 0; c < numEcmpChanges; ++c) {
         if (count[t][c] == 0) continue;
         if (!out.empty()) out += ", ";
         out += std::string(ecmpTableName(EcmpTable(t))) + " " + ecmpChangeName(EcmpChange(c)) +
                " " + std::to_string(count[t][c]);
      }
   }
   return out.empty() ? "none" : out;
}

EcmpSizes EcmpSizes::largeRouter() {
   EcmpSizes sizes;
   sizes.numNextHops = 4096;
   sizes.numGroups = 3968;
   sizes.numMembers = 49152;
   sizes.maxGroupMembers = 512;
   return sizes;
}

EcmpWorkload::EcmpWorkload(EcmpOptions options, std::vector<Route> routes)
    : options_(std::move(options)),
      random_(options_.seed),
      opIds_(options_.firstOpId),
      routeKeys_(std::move(routes)) {
   BRIO_ASSERT(options_.sizes.numNextHops > 0 && options_.sizes.vectorMembers > 0);
   std::size_t numRoutes = std::min(options_.sizes.numRoutes, options_.sizes.routeIndices);
   if (routeKeys_.size() < numRoutes) {
      std::vector<Route> more = syntheticRoutes(numRoutes, options_.seed);
      routeKeys_.insert(routeKeys_.end(), more.begin() + routeKeys_.size(), more.end());
   }
   routeKeys_.resize(numRoutes);
   vectorTaken_.resize(options_.sizes.selectorIndices);
}

EcmpCapacities EcmpWorkload::capacities() const {
   const EcmpSizes& s = options_.sizes;
   auto withChurn = [&](std::uint32_t n) {
      return n + static_cast<std::uint32_t>(n * std::min(options_.churnFraction, 1.0)) * 2 + 64;
   };
   EcmpCapacities c;
   c.keys[std::size_t(EcmpTable::nextHop)] = withChurn(s.numNextHops);
   c.keys[std::size_t(EcmpTable::group)] = withChurn(s.numGroups);
   c.keys[std::size_t(EcmpTable::member)] = withChurn(std::max(s.numMembers, s.numGroups));
   c.keys[std::size_t(EcmpTable::route)] = static_cast<std::uint32_t>(routeKeys_.size()) + 64;
   return c;
}

EcmpPhase EcmpWorkload::phase(EcmpPhaseKind kind) {
   EcmpPhase phase;
   phase.name = ecmpPhaseName(kind);
   phaseBegin(phase);
   switch (kind) {
      case EcmpPhaseKind::build:
         build(phase);
         break;
      case EcmpPhaseKind::flap:
         flap(phase);
         break;
      case EcmpPhaseKind::repoint:
         repoint(phase);
         break;
      case EcmpPhaseKind::resize:
         resize(phase);
         break;
      case EcmpPhaseKind::replace:
         replace(phase);
         break;
      case EcmpPhaseKind::retire:
         retire(phase);
         break;
      case EcmpPhaseKind::teardown:
         teardown(phase);
         break;
   }
   phaseEnd(phase);
   return phase;
}

// What the previous phase freed is out of hardware once it has converged, so it can be taken
// again from now on.
void EcmpWorkload::phaseBegin(EcmpPhase& phase) {
   phase.serial = ++phaseSerial_;
   for (auto [base, n] : vectorsHeld_) {
      for (std::uint32_t v = base; v < base + n; ++v) vectorTaken_[v] = false;
   }
   vectorsHeld_.clear();
   for (std::uint32_t id : slotsHeld_) {
      Group& g = groups_[id];
      for (auto& slots : g.slots) slots.reset();
      for (std::uint32_t m : g.members) g.slots[members_[m].vector].set(members_[m].subIndex);
   }
   slotsHeld_.clear();
}

void EcmpWorkload::phaseEnd(EcmpPhase& phase) {
   if (options_.order == EcmpOrder::dependantsFirst) {
      std::reverse(phase.writes.begin(), phase.writes.end());
   } else if (options_.order == EcmpOrder::shuffled) {
      std::shuffle(phase.writes.begin(), phase.writes.end(), random_);
   }
}

template <class R>
void EcmpWorkload::written(EcmpPhase& phase, EcmpTable table, EcmpChange change, std::uint32_t item,
                           R& rec, std::uint64_t key) {
   BRIO_ASSERT(rec.touched != phase.serial && "a key is written once per phase");
   rec.touched = phase.serial;
   rec.opId = opIds_();
   phase.writes.push_back({table, change, item, key, rec.live ? rec.opId : 0});
   phase.counts.add(table, change);
}

template <class R>
std::vector<std::uint32_t> EcmpWorkload::liveShuffled(const std::vector<R>& records) {
   std::vector<std::uint32_t> ids;
   for (std::uint32_t i = 0; i < records.size(); ++i) {
      if (records[i].live) ids.push_back(i);
   }
   std::shuffle(ids.begin(), ids.end(), random_);
   return ids;
}

std::size_t EcmpWorkload::churnCount(std::size_t live) const {
   if (live == 0) return 0;
   return std::clamp<std::size_t>(static_cast<std::size_t>(live * options_.churnFraction), 1, live);
}

std::size_t EcmpWorkload::numLive(EcmpTable table) const {
   auto live = [](const auto& records) {
      return std::size_t(
          std::count_if(records.begin(), records.end(), [](const auto& r) { return r.live; }));
   };
   switch (table) {
      case EcmpTable::nextHop:
         return live(nextHops_);
      case EcmpTable::group:
         return live(groups_);
      case EcmpTable::member:
         return live(members_);
      case EcmpTable::route:
         return live(routes_);
   }
   return 0;
}

ChipMbbShared::AdtEntryConfig EcmpWorkload::nextHopConfig(const NextHop& nh) const {
   // A neighbour's rewrite: its MAC address and port; a change of either is a new version.
   std::uint8_t payload[10] = {0x02, 0x00};
   for (int b = 0; b < 4; ++b) payload[2 + b] = static_cast<std::uint8_t>(nh.key >> (8 * b));
   for (int b = 0; b < 4; ++b) payload[6 + b] = static_cast<std::uint8_t>(nh.version >> (8 * b));
   return ChipMbbShared::AdtEntryConfig(nh.key, nh.opId, nh.mbrHdl,
                                        ChipSdk::PlcmtDataBuilder().payload(payload, 10).block());
}

ChipMbbShared::SelGrpEntryConfig EcmpWorkload::groupConfig(const Group& g) const {
   return ChipMbbShared::SelGrpEntryConfig(g.key, g.opId, g.grpHdl, g.numVectors, g.base,
                                           vectorSlots);
}

ChipMbbShared::SelMbrEntryKey EcmpWorkload::memberKey(const Member& m) const {
   return ChipMbbShared::SelMbrEntryKey(groups_[m.group].key, m.vector, m.subIndex);
}

ChipMbbShared::SelMbrEntryConfig EcmpWorkload::memberConfig(const Member& m) const {
   const NextHop& nh = nextHops_[m.nextHop];
   std::uint8_t weight = 1;
   return ChipMbbShared::SelMbrEntryConfig(
       memberKey(m), m.opId, nh.key, m.active,
       ChipSdk::PlcmtDataBuilder().adtMember(nh.mbrHdl).payload(&weight, 1).block());
}

Vault::MbbEngine::EntryConfig EcmpWorkload::routeConfig(const RouteEntry& r) const {
   std::uint8_t payload[17];
   std::size_t addrSize = r.route.v6 ? 16 : 4;
   std::copy_n(r.route.addr.begin(), addrSize, payload);
   payload[addrSize] = r.route.len;
   ChipSdk::PlcmtDataBuilder data;
   data.payload(payload, addrSize + 1);
   std::uint32_t selIndex = 0;
   if (r.direct) {
      data.adtMember(nextHops_[r.target].mbrHdl);
   } else {
      const Group& g = groups_[r.target];
      data.selGroup(g.key, static_cast<std::uint8_t>(g.numVectors));
      selIndex = g.base;
   }
   return Vault::MbbEngine::EntryConfig(r.key, r.opId, r.handle, 0, r.route.len, 1, r.index,
                                        selIndex, 0, data.block());
}

void EcmpWorkload::apply(const EcmpPhase& phase, EcmpSink& sink) const {
   for (const EcmpWrite& write : phase.writes) apply(phase, write, sink);
}

void EcmpWorkload::apply(const EcmpPhase& phase, const EcmpWrite& write, EcmpSink& sink) const {
   BRIO_ASSERT(phase.serial == phaseSerial_ && "only the latest phase can be written");
   bool del = write.opId == 0;
   switch (write.table) {
      case EcmpTable::nextHop:
         del ? sink.nextHopDel(write.key) : sink.nextHopIs(nextHopConfig(nextHops_[write.item]));
         break;
      case EcmpTable::group:
         del ? sink.groupDel(write.key) : sink.groupIs(groupConfig(groups_[write.item]));
         break;
      case EcmpTable::member:
         del ? sink.memberDel(ChipMbbShared::SelMbrEntryKey(write.key))
             : sink.memberIs(memberConfig(members_[write.item]));
         break;
      case EcmpTable::route:
         del ? sink.routeDel(write.key) : sink.routeIs(routeConfig(routes_[write.item]));
         break;
   }
}

EcmpState EcmpWorkload::state() const {
   EcmpState state;
   for (const NextHop& nh : nextHops_) {
      if (nh.live) state.nextHops.emplace(nh.key, nextHopConfig(nh));
   }
   for (const Group& g : groups_) {
      if (g.live) state.groups.emplace(g.key, groupConfig(g));
   }
   for (const Member& m : members_) {
      if (m.live) state.members.emplace(memberKey(m).value(), memberConfig(m));
   }
   for (const RouteEntry& r : routes_) {
      if (r.live) state.routes.emplace(r.key, routeConfig(r));
   }
   return state;
}

void EcmpWorkload::nextHopNew(EcmpPhase& phase) {
   auto id = static_cast<std::uint32_t>(nextHops_.size());
   NextHop& nh = nextHops_.emplace_back();
   nh.key = nextHopKeyBase + id + 1;
   nh.mbrHdl = nextMbrHdl_++;
   nh.live = true;
   written(phase, EcmpTable::nextHop, EcmpChange::add, id, nh, nh.key);
}

// Takes `numVectors` free selector vectors in a row, looking on from the last group's.
bool EcmpWorkload::groupNew(EcmpPhase& phase, std::uint32_t numVectors, std::uint32_t& id) {
   auto size = static_cast<std::uint32_t>(vectorTaken_.size());
   if (numVectors == 0 || numVectors > size) return false;
   for (std::uint32_t tried = 0; tried < size; ++tried) {
      std::uint32_t base = (vectorCursor_ + tried) % size;
      if (base + numVectors > size) continue;
      auto first = vectorTaken_.begin() + base;
      if (std::find(first, first + numVectors, true) != first + numVectors) continue;
      std::fill(first, first + numVectors, true);
      vectorCursor_ = (base + numVectors) % size;
      id = static_cast<std::uint32_t>(groups_.size());
      Group& g = groups_.emplace_back();
      g.key = groupKeyBase + id;
      g.grpHdl = nextGrpHdl_++;
      g.base = base;
      g.numVectors = numVectors;
      g.slots.resize(numVectors);
      g.live = true;
      written(phase, EcmpTable::group, EcmpChange::add, id, g, g.key);
      return true;
   }
   return false;
}

void EcmpWorkload::groupDel(EcmpPhase& phase, std::uint32_t id) {
   Group& g = groups_[id];
   BRIO_ASSERT(g.members.empty() && g.routes == 0);
   g.live = false;
   vectorsHeld_.emplace_back(g.base, g.numVectors);
   written(phase, EcmpTable::group, EcmpChange::del, id, g, g.key);
}

// Takes the lowest slot of the vector that no member holds or held in this phase.
bool EcmpWorkload::memberNew(EcmpPhase& phase, std::uint32_t group, std::uint32_t vector,
                             std::uint32_t nextHop, bool active) {
   std::bitset<vectorSlots>& slots = groups_[group].slots[vector];
   std::uint32_t sub = 0;
   while (sub < vectorSlots && slots.test(sub)) ++sub;
   if (sub == vectorSlots) return false;
   slots.set(sub);
   auto id = static_cast<std::uint32_t>(members_.size());
   Member& m = members_.emplace_back();
   m.group = group;
   m.vector = vector;
   m.subIndex = sub;
   m.nextHop = nextHop;
   m.active = active;
   m.live = true;
   groups_[group].members.push_back(id);
   ++nextHops_[nextHop].users;
   written(phase, EcmpTable::member, EcmpChange::add, id, m, memberKey(m).value());
   return true;
}

void EcmpWorkload::memberDel(EcmpPhase& phase, std::uint32_t id) {
   Member& m = members_[id];
   Group& g = groups_[m.group];
   std::erase(g.members, id);
   slotsHeld_.push_back(m.group);
   --nextHops_[m.nextHop].users;
   m.live = false;
   written(phase, EcmpTable::member, EcmpChange::del, id, m, memberKey(m).value());
}

void EcmpWorkload::memberRepoint(EcmpPhase& phase, std::uint32_t id, std::uint32_t nextHop) {
   Member& m = members_[id];
   EcmpChange change = m.active && activeIn(groups_[m.group], m.vector) == 1
                           ? EcmpChange::repointSole
                           : EcmpChange::repoint;
   --nextHops_[m.nextHop].users;
   ++nextHops_[nextHop].users;
   m.nextHop = nextHop;
   written(phase, EcmpTable::member, change, id, m, memberKey(m).value());
}

void EcmpWorkload::routeTargetIs(RouteEntry& r, std::uint32_t target, int delta) {
   r.target = target;
   if (r.direct) {
      nextHops_[target].users += delta;
   } else {
      groups_[target].routes += delta;
   }
}

void EcmpWorkload::routeRepoint(EcmpPhase& phase, std::uint32_t id, std::uint32_t target) {
   RouteEntry& r = routes_[id];
   routeTargetIs(r, r.target, -1);
   routeTargetIs(r, target, 1);
   written(phase, EcmpTable::route, EcmpChange::repoint, id, r, r.key);
}

std::uint32_t EcmpWorkload::nextHopOther(std::uint32_t current, const std::vector<bool>& avoid) {
   auto fits = [&](std::uint32_t id) {
      return id != current && nextHops_[id].live && !(id < avoid.size() && avoid[id]);
   };
   auto n = static_cast<std::uint32_t>(nextHops_.size());
   for (int tries = 0; tries < 32; ++tries) {
      std::uint32_t id = below(n);
      if (fits(id)) return id;
   }
   for (std::uint32_t id = 0; id < n; ++id) {
      if (fits(id)) return id;
   }
   return current;
}

std::uint32_t EcmpWorkload::activeIn(const Group& g, std::uint32_t vector) const {
   return static_cast<std::uint32_t>(std::count_if(g.members.begin(), g.members.end(), [&](auto m) {
      return members_[m].vector == vector && members_[m].active;
   }));
}

std::uint32_t EcmpWorkload::membersIn(const Group& g, std::uint32_t vector) const {
   return static_cast<std::uint32_t>(std::count_if(
       g.members.begin(), g.members.end(), [&](auto m) { return members_[m].vector == vector; }));
}

// An even share each, except the wide groups, and never more than fits in 16 vectors.
std::vector<std::uint32_t> EcmpWorkload::groupSizes() const {
   const EcmpSizes& s = options_.sizes;
   std::uint32_t n = s.numGroups;
   if (n == 0) return {};
   std::uint32_t total = std::max(s.numMembers, n);
   std::uint32_t widest = std::min(s.maxGroupMembers, s.vectorMembers * maxVectors);
   std::uint32_t wide = widest > total / n ? std::max<std::uint32_t>(1, n / 256) : 0;
   while (wide > 0 && total - std::min(total, wide * widest) < n - wide) --wide;
   std::uint32_t rest = total - wide * widest;
   std::uint32_t others = n - wide;
   std::vector<std::uint32_t> sizes(n, widest);
   for (std::uint32_t i = wide; i < n; ++i) {
      std::uint32_t share = rest / others + (i - wide < rest % others ? 1 : 0);
      sizes[i] = std::clamp<std::uint32_t>(share, 1, widest);
   }
   return sizes;
}

void EcmpWorkload::build(EcmpPhase& phase) {
   BRIO_ASSERT(nextHops_.empty() && "a workload is built once");
   const EcmpSizes& s = options_.sizes;
   for (std::uint32_t i = 0; i < s.numNextHops; ++i) nextHopNew(phase);
   std::uint32_t nextHop = 0;
   for (std::uint32_t size : groupSizes()) {
      std::uint32_t numVectors = (size + s.vectorMembers - 1) / s.vectorMembers;
      std::uint32_t g = 0;
      if (!groupNew(phase, numVectors, g)) continue;
      // Consecutive next hops from a random start: the members of a group differ as long as
      // there are enough next hops.
      nextHop = below(s.numNextHops);
      for (std::uint32_t j = 0; j < size; ++j) {
         memberNew(phase, g, j % numVectors, (nextHop + j) % s.numNextHops, true);
      }
   }
   auto numGroups = static_cast<std::uint32_t>(groups_.size());
   for (std::uint32_t i = 0; i < routeKeys_.size(); ++i) {
      RouteEntry& r = routes_.emplace_back();
      r.route = routeKeys_[i];
      r.key = r.route.key();
      r.handle = nextRouteHandle_++;
      r.index = i;
      r.direct = numGroups == 0 || below(1000) < s.directRouteShare * 1000;
      routeTargetIs(r, r.direct ? below(s.numNextHops) : below(numGroups), 1);
      r.live = true;
      written(phase, EcmpTable::route, EcmpChange::add, i, r, r.key);
   }
}

void EcmpWorkload::flap(EcmpPhase& phase) {
   // Vectors left with one active member, for the re-points that follow.
   std::vector<std::uint32_t> groups = liveShuffled(groups_);
   std::size_t numSole = std::max<std::size_t>(1, churnCount(groups.size()) / 4);
   for (std::size_t i = 0; i < groups.size() && numSole > 0; ++i) {
      const Group& g = groups_[groups[i]];
      std::uint32_t vector = below(g.numVectors);
      if (membersIn(g, vector) < 2) continue;
      --numSole;
      bool kept = false;
      for (std::uint32_t id : g.members) {
         Member& m = members_[id];
         if (m.vector != vector || !m.active) continue;
         if (!kept) {
            kept = true;
            continue;
         }
         m.active = false;
         written(phase, EcmpTable::member, EcmpChange::deactivate, id, m, memberKey(m).value());
      }
   }
   std::vector<std::uint32_t> members = liveShuffled(members_);
   members.resize(churnCount(members.size()));
   for (std::uint32_t id : members) {
      Member& m = members_[id];
      if (m.touched == phase.serial) continue;
      if (m.active && activeIn(groups_[m.group], m.vector) < 2) continue;
      m.active = !m.active;
      written(phase, EcmpTable::member, m.active ? EcmpChange::activate : EcmpChange::deactivate,
              id, m, memberKey(m).value());
   }
}

void EcmpWorkload::repoint(EcmpPhase& phase) {
   const std::vector<bool> avoidNone;
   std::vector<std::uint32_t> groups = liveShuffled(groups_);
   std::size_t numSole = std::max<std::size_t>(1, churnCount(groups.size()) / 2);
   for (std::size_t i = 0; i < groups.size() && numSole > 0; ++i) {
      const Group& g = groups_[groups[i]];
      for (std::uint32_t v = 0; v < g.numVectors && numSole > 0; ++v) {
         if (activeIn(g, v) != 1) continue;
         for (std::uint32_t id : g.members) {
            const Member& m = members_[id];
            if (m.vector != v || !m.active) continue;
            std::uint32_t other = nextHopOther(m.nextHop, avoidNone);
            if (other != m.nextHop) {
               memberRepoint(phase, id, other);
               --numSole;
            }
            break;
         }
      }
   }
   std::vector<std::uint32_t> members = liveShuffled(members_);
   members.resize(churnCount(members.size()) / 2);
   for (std::uint32_t id : members) {
      const Member& m = members_[id];
      std::uint32_t other = nextHopOther(m.nextHop, avoidNone);
      if (m.touched != phase.serial && other != m.nextHop) memberRepoint(phase, id, other);
   }
   std::vector<std::uint32_t> routes = liveShuffled(routes_);
   routes.resize(churnCount(routes.size()));
   for (std::uint32_t id : routes) {
      const RouteEntry& r = routes_[id];
      std::uint32_t other = r.target;
      if (r.direct) {
         other = nextHopOther(r.target, avoidNone);
      } else if (groups.size() > 1) {
         while (other == r.target) other = groups[below(static_cast<std::uint32_t>(groups.size()))];
      }
      if (other != r.target) routeRepoint(phase, id, other);
   }
}

void EcmpWorkload::resize(EcmpPhase& phase) {
   std::vector<std::uint32_t> groups = liveShuffled(groups_);
   groups.resize(churnCount(groups.size()));
   for (std::uint32_t gid : groups) {
      std::uint32_t numAdds = 1 + below(2);
      for (std::uint32_t a = 0; a < numAdds; ++a) {
         std::uint32_t vector = below(groups_[gid].numVectors);
         auto none = static_cast<std::uint32_t>(nextHops_.size());
         std::uint32_t nextHop = nextHopOther(none, {});
         if (nextHop != none) memberNew(phase, gid, vector, nextHop, below(4) != 0);
      }
      std::uint32_t numDels = 1 + below(2);
      for (std::uint32_t d = 0; d < numDels; ++d) {
         const Group& g = groups_[gid];
         std::uint32_t id = g.members[below(static_cast<std::uint32_t>(g.members.size()))];
         const Member& m = members_[id];
         bool leavesActive = !m.active || activeIn(g, m.vector) >= 2;
         if (m.touched != phase.serial && membersIn(g, m.vector) >= 2 && leavesActive) {
            memberDel(phase, id);
         }
      }
   }
}

void EcmpWorkload::replace(EcmpPhase& phase) {
   std::vector<std::uint32_t> groups = liveShuffled(groups_);
   groups.resize(std::max<std::size_t>(1, churnCount(groups.size()) / 2));
   for (std::uint32_t old : groups) {
      std::uint32_t copy = 0;
      if (!groupNew(phase, groups_[old].numVectors, copy)) continue;
      std::vector<std::uint32_t> olds = groups_[old].members;
      for (std::uint32_t id : olds) {
         const Member m = members_[id];
         memberNew(phase, copy, m.vector, m.nextHop, m.active);
      }
      for (std::uint32_t id = 0; id < routes_.size(); ++id) {
         const RouteEntry& r = routes_[id];
         if (r.live && !r.direct && r.target == old) routeRepoint(phase, id, copy);
      }
      for (std::uint32_t id : olds) memberDel(phase, id);
      groupDel(phase, old);
   }
}

void EcmpWorkload::retire(EcmpPhase& phase) {
   std::vector<std::uint32_t> live = liveShuffled(nextHops_);
   std::size_t n = churnCount(live.size());
   // Keep two next hops at least, so that every user finds another one.
   std::size_t numRetired = live.size() > 2 ? std::min(n, live.size() - 2) : 0;
   for (std::size_t i = 0; i < numRetired; ++i) nextHopNew(phase);
   std::vector<bool> retiring(nextHops_.size());
   for (std::size_t i = 0; i < numRetired; ++i) retiring[live[i]] = true;
   for (std::size_t i = numRetired; i < std::min(live.size(), numRetired + n); ++i) {
      NextHop& nh = nextHops_[live[i]];
      ++nh.version;
      written(phase, EcmpTable::nextHop, EcmpChange::modify, live[i], nh, nh.key);
   }
   for (std::uint32_t id = 0; id < members_.size(); ++id) {
      const Member& m = members_[id];
      if (m.live && retiring[m.nextHop])
         memberRepoint(phase, id, nextHopOther(m.nextHop, retiring));
   }
   for (std::uint32_t id = 0; id < routes_.size(); ++id) {
      const RouteEntry& r = routes_[id];
      if (r.live && r.direct && retiring[r.target])
         routeRepoint(phase, id, nextHopOther(r.target, retiring));
   }
   for (std::size_t i = 0; i < numRetired; ++i) {
      NextHop& nh = nextHops_[live[i]];
      BRIO_ASSERT(nh.users == 0);
      nh.live = false;
      written(phase, EcmpTable::nextHop, EcmpChange::del, live[i], nh, nh.key);
   }
}

void EcmpWorkload::teardown(EcmpPhase& phase) {
   for (std::uint32_t id = 0; id < routes_.size(); ++id) {
      RouteEntry& r = routes_[id];
      if (!r.live) continue;
      routeTargetIs(r, r.target, -1);
      r.live = false;
      written(phase, EcmpTable::route, EcmpChange::del, id, r, r.key);
   }
   for (std::uint32_t gid = 0; gid < groups_.size(); ++gid) {
      if (!groups_[gid].live) continue;
      std::vector<std::uint32_t> members = groups_[gid].members;
      for (std::uint32_t id : members) memberDel(phase, id);
      groupDel(phase, gid);
   }
   for (std::uint32_t id = 0; id < nextHops_.size(); ++id) {
      NextHop& nh = nextHops_[id];
      if (!nh.live) continue;
      nh.live = false;
      written(phase, EcmpTable::nextHop, EcmpChange::del, id, nh, nh.key);
   }
}

}  // namespace SliceSystem
