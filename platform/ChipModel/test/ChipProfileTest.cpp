#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ChipModel/ChipProfile.h"

namespace {

using namespace ChipModel;
using ChipSdk::TableKind;

const char* goodProfile = R"({
  "name": "lab",
  "numPipes": 2,
  "devices": [0, 3],
  "tables": [
    {"name": "host", "handle": "0x01000001", "kind": "MAT", "size": 1024},
    {"name": "lpm", "handle": 16777218, "kind": "MAT", "size": 512, "atcamPartitions": 8},
    {"name": "ecmp", "handle": "0x01000010", "kind": "MAT", "size": 256,
     "adt": "0x02000010", "sel": "0x03000010"},
    {"name": "ecmp_adt", "handle": "0x02000010", "kind": "ADT", "size": 512},
    {"name": "ecmp_sel", "handle": "0x03000010", "kind": "SEL", "size": 64}
  ]
})";

std::string parseError(const std::string& text) {
   ChipProfile profile;
   std::string error;
   EXPECT_FALSE(chipProfileParse(text, profile, error)) << text;
   EXPECT_EQ(profile, ChipProfile{});
   return error;
}

TEST(ChipProfile, ParsesAFileAndRefusesBrokenOnes) {
   EXPECT_EQ(ChipProfile::defaultProfile().validate(), "");

   std::string path = ::testing::TempDir() + "chip-profile-test.json";
   { std::ofstream(path) << goodProfile; }
   ChipProfile profile;
   std::string error;
   ASSERT_TRUE(chipProfileLoad(path, profile, error)) << error;
   EXPECT_EQ(profile.name, "lab");
   EXPECT_EQ(profile.numPipes, 2);
   EXPECT_TRUE(profile.hasDevice(3));
   EXPECT_FALSE(profile.hasDevice(1));
   ASSERT_EQ(profile.tables.size(), 5u);
   EXPECT_EQ(profile.tables[1], (TableProfile{"lpm", 0x01000002, TableKind::mat, 512, 8, 0, 0}));
   EXPECT_EQ(profile.tables[2].selHandle, 0x03000010u);
   EXPECT_TRUE(profile.tables[2].isTriple());

   // A file cut short in the middle is not a profile.
   std::string text = goodProfile;
   { std::ofstream(path) << text.substr(0, text.size() / 2); }
   EXPECT_FALSE(chipProfileLoad(path, profile, error));
   EXPECT_NE(error.find("malformed or truncated"), std::string::npos) << error;
   EXPECT_NE(error.find(path), std::string::npos);
   std::remove(path.c_str());
   EXPECT_FALSE(chipProfileLoad(path, profile, error));
   EXPECT_NE(error.find("cannot open"), std::string::npos);
   EXPECT_EQ(profile.name, "lab");

   const std::pair<const char*, const char*> broken[] = {
       {"[1, 2]", "JSON object"},
       {R"({"numPipes": 2})", "'tables'"},
       {R"({"numPipes": 0, "tables": []})", "numPipes"},
       {R"({"numPipes": 2, "tables": [{"name": "t", "handle": 1, "kind": "TCAM", "size": 4}]})",
        "unknown kind"},
       {R"({"numPipes": 2, "tables": [{"name": "t", "handle": "0xZZ", "kind": "MAT", "size": 4}]})",
        "not a number"},
       {R"({"numPipes": 2, "tables": [{"name": "t", "handle": -1, "kind": "MAT", "size": 4}]})",
        "unsigned"},
       {R"({"numPipes": 2, "tables": [{"name": "t", "kind": "MAT", "size": 4}]})",
        "table 't': missing 'handle'"},
       {R"({"numPipes": 2, "devices": [40], "tables": []})", "device"},
       {R"({"numPipes": 2, "tables": [{"name": "a", "handle": 1, "kind": "MAT", "size": 4},
           {"name": "b", "handle": 1, "kind": "MAT", "size": 4}]})",
        "duplicate"},
       {R"({"numPipes": 2, "tables": [
           {"name": "a", "handle": 1, "kind": "MAT", "size": 4, "adt": 2, "sel": 9},
           {"name": "b", "handle": 2, "kind": "ADT", "size": 4}]})",
        "sel is not"},
       {R"({"numPipes": 2, "tables": [{"name": "b", "handle": 2, "kind": "ADT", "size": 4}]})",
        "belong to a triple"},
   };
   for (const auto& [text, error] : broken) {
      EXPECT_NE(parseError(text).find(error), std::string::npos) << text;
   }
}

}  // namespace
