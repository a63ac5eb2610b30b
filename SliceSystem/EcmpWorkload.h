#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ChipMbbShared/ConfigTables.h"
#include "Orb/Ptr.h"
#include "SliceSystem/Routes.h"
#include "SliceSystem/TablePlan.h"
#include "Vault/MbbEngine/Tables.h"

namespace SliceSystem {

// The four collections of a triple as a router fills them: next hops are action data
// entries, groups and members are the selector's, routes are match entries.
enum class EcmpTable : std::uint8_t { nextHop, group, member, route };
constexpr std::size_t numEcmpTables = 4;
const char* ecmpTableName(EcmpTable table);

// What a write does. A re-point gives a member another next hop or a route another group or
// next hop; `repointSole` is the re-point of the only active member of its vector, which the
// hardware can only take by adding the new member before removing the old.
enum class EcmpChange : std::uint8_t {
   add,
   modify,
   activate,
   deactivate,
   repoint,
   repointSole,
   del
};
constexpr std::size_t numEcmpChanges = 7;
const char* ecmpChangeName(EcmpChange change);

struct EcmpCounts {
   std::array<std::array<std::uint64_t, numEcmpChanges>, numEcmpTables> count{};

   void add(EcmpTable table, EcmpChange change) {
      ++count[std::size_t(table)][std::size_t(change)];
   }
   std::uint64_t of(EcmpTable table, EcmpChange change) const {
      return count[std::size_t(table)][std::size_t(change)];
   }
   std::uint64_t total() const;
   // "next hop add 4096, member deactivate 12, ..." leaving out what did not happen.
   std::string text() const;
};

// How many keys each collection may hold at once, peaks within phases included.
struct EcmpCapacities {
   std::array<std::uint32_t, numEcmpTables> keys{};
   std::uint32_t operator[](EcmpTable table) const { return keys[std::size_t(table)]; }
};

// One configuration write: the key's value is what the workload holds for it once the phase
// is generated (each key is written at most once per phase); `opId` 0 is a delete.
struct EcmpWrite {
   EcmpTable table;
   EcmpChange change;
   std::uint32_t item;  // the workload's own record of that table
   std::uint64_t key;
   std::uint64_t opId;
};

struct EcmpPhase {
   std::string name;
   std::uint32_t serial = 0;
   std::vector<EcmpWrite> writes;
   EcmpCounts counts;
};

// In which order a phase's writes come. Publishers may write in any order; a careful one
// writes what is referred to before what refers to it, and adds before it deletes.
enum class EcmpOrder : std::uint8_t { dependencies, dependantsFirst, shuffled };

// A router's phases: the build (next hops, groups, their members, all active, and the
// routes); member flaps, where in some vectors every member but one goes inactive; re-points
// of members to other next hops (the only active member of some vectors among them) and of
// routes to other groups or next hops; members added to groups and others removed; groups
// replaced by copies under new keys, their routes following; next hops added, changed, and
// removed once their users have moved; and the teardown of everything.
enum class EcmpPhaseKind : std::uint8_t { build, flap, repoint, resize, replace, retire, teardown };
constexpr std::array<EcmpPhaseKind, 5> ecmpChurnPhases{
    EcmpPhaseKind::flap, EcmpPhaseKind::repoint, EcmpPhaseKind::resize, EcmpPhaseKind::replace,
    EcmpPhaseKind::retire};
const char* ecmpPhaseName(EcmpPhaseKind kind);

struct EcmpSizes {
   std::uint32_t numNextHops = 4096;
   std::uint32_t numGroups = 4096;
   // Members of all groups together, spread evenly, except that one group in 256 is a wide
   // one with `maxGroupMembers` when that is above the even share.
   std::uint32_t numMembers = 4096 * 64;
   std::uint32_t maxGroupMembers = 64;
   // A group takes as many vectors as it needs to hold at most this many members in each;
   // below the 120 slots of a vector so that members can be added before others go.
   std::uint32_t vectorMembers = 96;
   std::uint32_t numRoutes = 16384;
   // Routes whose action is a next hop rather than a group.
   double directRouteShare = 0.125;
   // The chip's match indices and selector vectors that the workload may use.
   std::uint32_t routeIndices = 16384;
   std::uint32_t selectorIndices = 8192;

   // The next-hop and group tables of a production routing pipeline: 4,096 next hops, 3,968
   // groups sharing 49,152 members, at most 512 in one group.
   static EcmpSizes largeRouter();
};

struct EcmpOptions {
   EcmpSizes sizes;
   std::uint64_t seed = 1;
   std::uint64_t firstOpId = 1;
   EcmpOrder order = EcmpOrder::dependencies;
   // Share of the members, routes, groups or next hops that one churn phase changes.
   double churnFraction = 0.1;
};

// Where the writes go: one entryIs/entryDel pair per collection.
class EcmpSink {
 public:
   virtual ~EcmpSink() = default;
   virtual void nextHopIs(const ChipMbbShared::AdtEntryConfig& config) = 0;
   virtual void nextHopDel(Vault::MbbEngine::EntryKey key) = 0;
   virtual void groupIs(const ChipMbbShared::SelGrpEntryConfig& config) = 0;
   virtual void groupDel(Vault::MbbEngine::EntryKey key) = 0;
   virtual void memberIs(const ChipMbbShared::SelMbrEntryConfig& config) = 0;
   virtual void memberDel(ChipMbbShared::SelMbrEntryKey key) = 0;
   virtual void routeIs(const Vault::MbbEngine::EntryConfig& config) = 0;
   virtual void routeDel(Vault::MbbEngine::EntryKey key) = 0;
};

// The configuration collections of a triple as a sink.
class EcmpTableSink : public EcmpSink {
 public:
   Orb::Ptr<ChipMbbShared::AdtTableConfig> adt;
   Orb::Ptr<ChipMbbShared::SelGrpTableConfig> selGrp;
   Orb::Ptr<ChipMbbShared::SelMbrTableConfig> selMbr;
   Orb::Ptr<Vault::MbbEngine::TableConfig> mat;

   bool complete() const { return adt && selGrp && selMbr && mat; }
   // Where a write of `key` to `table` goes, fetched ahead of it.
   void prefetch(EcmpTable table, std::uint64_t key) const {
      switch (table) {
         case EcmpTable::nextHop:
            return adt->entryPrefetch(key);
         case EcmpTable::group:
            return selGrp->entryPrefetch(key);
         case EcmpTable::member:
            return selMbr->entryPrefetch(ChipMbbShared::SelMbrEntryKey(key));
         case EcmpTable::route:
            return mat->entryPrefetch(key);
      }
   }
   void nextHopIs(const ChipMbbShared::AdtEntryConfig& config) override { adt->entryIs(config); }
   void nextHopDel(Vault::MbbEngine::EntryKey key) override { adt->entryDel(key); }
   void groupIs(const ChipMbbShared::SelGrpEntryConfig& config) override {
      selGrp->entryIs(config);
   }
   void groupDel(Vault::MbbEngine::EntryKey key) override { selGrp->entryDel(key); }
   void memberIs(const ChipMbbShared::SelMbrEntryConfig& config) override {
      selMbr->entryIs(config);
   }
   void memberDel(ChipMbbShared::SelMbrEntryKey key) override { selMbr->entryDel(key); }
   void routeIs(const Vault::MbbEngine::EntryConfig& config) override { mat->entryIs(config); }
   void routeDel(Vault::MbbEngine::EntryKey key) override { mat->entryDel(key); }
};

// What each collection holds once a phase has been written: every live key's configuration.
// A converged engine shows exactly these keys in the statuses, each with its op id.
struct EcmpState {
   std::map<std::uint64_t, ChipMbbShared::AdtEntryConfig> nextHops;
   std::map<std::uint64_t, ChipMbbShared::SelGrpEntryConfig> groups;
   std::map<std::uint64_t, ChipMbbShared::SelMbrEntryConfig> members;
   std::map<std::uint64_t, Vault::MbbEngine::EntryConfig> routes;
};

// A router's ECMP state and the changes it makes to it, deterministic from a seed. Every
// configuration it holds at a phase end is one the chip can take: handles are never reused,
// groups never share selector vectors, each vector of a group keeps an active member, members
// and routes point at live next hops and groups. A phase's writes must be applied before the
// next phase is generated, since a write takes its value from the workload as it stands.
class EcmpWorkload {
 public:
   // `routes` give the route keys; fewer than asked are topped up with generated ones.
   explicit EcmpWorkload(EcmpOptions options, std::vector<Route> routes = {});

   const EcmpOptions& options() const { return options_; }
   const EcmpSizes& sizes() const { return options_.sizes; }
   // The routes the build publishes: as many as asked, at most the match indices.
   std::size_t numRoutes() const { return routeKeys_.size(); }
   // Room for what the phases hold at their peaks: a churn phase adds copies and new members
   // and next hops before it deletes what they replace.
   EcmpCapacities capacities() const;

   // Generates the phase's writes and takes the workload to its end state.
   EcmpPhase phase(EcmpPhaseKind kind);

   // Writes the phase to the sink, in the phase's order.
   void apply(const EcmpPhase& phase, EcmpSink& sink) const;
   void apply(const EcmpPhase& phase, const EcmpWrite& write, EcmpSink& sink) const;

   EcmpState state() const;
   std::size_t numLive(EcmpTable table) const;

 private:
   struct NextHop {
      std::uint64_t key = 0;
      std::uint32_t mbrHdl = 0;
      std::uint32_t version = 0;
      std::uint32_t users = 0;
      std::uint64_t opId = 0;
      std::uint32_t touched = 0;  // serial of the phase that last wrote it
      bool live = false;
   };
   struct Group {
      std::uint64_t key = 0;
      std::uint32_t grpHdl = 0;
      std::uint32_t base = 0;
      std::uint32_t numVectors = 0;
      std::uint32_t routes = 0;
      std::uint64_t opId = 0;
      std::uint32_t touched = 0;
      bool live = false;
      std::vector<std::uint32_t> members;
      // Sub-indices of each vector that a member holds or held earlier in this phase.
      std::vector<std::bitset<120>> slots;
   };
   struct Member {
      std::uint32_t group = 0;
      std::uint32_t vector = 0;
      std::uint32_t subIndex = 0;
      std::uint32_t nextHop = 0;
      std::uint64_t opId = 0;
      std::uint32_t touched = 0;
      bool active = false;
      bool live = false;
   };
   struct RouteEntry {
      Route route;
      std::uint64_t key = 0;
      std::uint32_t handle = 0;
      std::uint32_t index = 0;
      std::uint32_t target = 0;  // a group, or a next hop when direct
      std::uint64_t opId = 0;
      std::uint32_t touched = 0;
      bool direct = false;
      bool live = false;
   };
   void build(EcmpPhase& phase);
   void flap(EcmpPhase& phase);
   void repoint(EcmpPhase& phase);
   void resize(EcmpPhase& phase);
   void replace(EcmpPhase& phase);
   void retire(EcmpPhase& phase);
   void teardown(EcmpPhase& phase);

   ChipMbbShared::AdtEntryConfig nextHopConfig(const NextHop& nh) const;
   ChipMbbShared::SelGrpEntryConfig groupConfig(const Group& g) const;
   ChipMbbShared::SelMbrEntryKey memberKey(const Member& m) const;
   ChipMbbShared::SelMbrEntryConfig memberConfig(const Member& m) const;
   Vault::MbbEngine::EntryConfig routeConfig(const RouteEntry& r) const;

   void phaseBegin(EcmpPhase& phase);
   void phaseEnd(EcmpPhase& phase);
   // Records a write of a record that has just changed, under a new op id.
   template <class R>
   void written(EcmpPhase& phase, EcmpTable table, EcmpChange change, std::uint32_t item, R& rec,
                std::uint64_t key);
   std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(random_() % n); }
   template <class R>
   std::vector<std::uint32_t> liveShuffled(const std::vector<R>& records);
   std::size_t churnCount(std::size_t live) const;

   void nextHopNew(EcmpPhase& phase);
   bool groupNew(EcmpPhase& phase, std::uint32_t numVectors, std::uint32_t& id);
   void groupDel(EcmpPhase& phase, std::uint32_t id);
   bool memberNew(EcmpPhase& phase, std::uint32_t group, std::uint32_t vector,
                  std::uint32_t nextHop, bool active);
   void memberDel(EcmpPhase& phase, std::uint32_t id);
   void memberRepoint(EcmpPhase& phase, std::uint32_t id, std::uint32_t nextHop);
   void routeRepoint(EcmpPhase& phase, std::uint32_t id, std::uint32_t target);
   void routeTargetIs(RouteEntry& r, std::uint32_t target, int delta);
   // A live next hop other than `current` and not in `avoid`; `current` when there is none.
   std::uint32_t nextHopOther(std::uint32_t current, const std::vector<bool>& avoid);
   std::uint32_t activeIn(const Group& g, std::uint32_t vector) const;
   std::uint32_t membersIn(const Group& g, std::uint32_t vector) const;
   std::vector<std::uint32_t> groupSizes() const;

   EcmpOptions options_;
   std::mt19937_64 random_;
   OpIdSource opIds_;
   std::vector<NextHop> nextHops_;
   std::vector<Group> groups_;
   std::vector<Member> members_;
   std::vector<RouteEntry> routes_;
   std::vector<Route> routeKeys_;
   // Selector vectors in use, and those freed in this phase, which stay taken until it ends
   // because the old group may still hold them in hardware until then.
   std::vector<bool> vectorTaken_;
   std::vector<std::pair<std::uint32_t, std::uint32_t>> vectorsHeld_;
   std::vector<std::uint32_t> slotsHeld_;  // groups whose freed member slots are held
   std::uint32_t vectorCursor_ = 0;
   std::uint32_t nextMbrHdl_ = 1;
   std::uint32_t nextGrpHdl_ = 1;
   std::uint32_t nextRouteHandle_ = 1;
   std::uint32_t phaseSerial_ = 0;
};

}  // namespace SliceSystem
