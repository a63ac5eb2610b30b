#include <gtest/gtest.h>

#include "Orb/Orb.h"

namespace {

class Table : public Orb::Entity<Table> {
 public:
   using Entity::Entity;
};
class Other : public Orb::Entity<Other> {
 public:
   using Entity::Entity;
};

class DirWatcher : public Orb::Dir::Notifiee {
 public:
   void onEntityPtr(const std::string& name) override { seen.push_back(name); }
   std::vector<std::string> seen;
};

TEST(OrbDir, NotifiesAddReplaceRemoveAndKeepsKinds) {
   auto dir = Orb::ptrNew<Orb::Dir>("tables");
   DirWatcher watcher;
   watcher.notifierIs(dir.get());
   dir->entityIs("a", Orb::ptrNew<Table>("a"));
   dir->entityIs("b", Orb::ptrNew<Other>("b"));
   dir->entityIs("a", Orb::ptrNew<Table>("a"));
   dir->entityDel("b");
   dir->entityDel("missing");
   EXPECT_EQ(watcher.seen, (std::vector<std::string>{"a", "b", "a", "b"}));
   EXPECT_TRUE(std::dynamic_pointer_cast<Table>(dir->entity("a")));
   EXPECT_FALSE(std::dynamic_pointer_cast<Other>(dir->entity("a")));
   EXPECT_EQ(dir->entity("b"), nullptr);
}

TEST(OrbTypeRegistry, KeepsFirstRegistrationOrder) {
   Orb::TypeRegistration first{"Test::Alpha", "Test::Beta"};
   Orb::TypeRegistration again{"Test::Gamma", "Test::Alpha"};
   const auto& types = Orb::TypeRegistry::instance().types();
   auto pos = [&](const char* n) {
      return std::find(types.begin(), types.end(), n) - types.begin();
   };
   EXPECT_LT(pos("Test::Alpha"), pos("Test::Beta"));
   EXPECT_LT(pos("Test::Beta"), pos("Test::Gamma"));
   EXPECT_EQ(std::count(types.begin(), types.end(), "Test::Alpha"), 1);
}

}  // namespace
