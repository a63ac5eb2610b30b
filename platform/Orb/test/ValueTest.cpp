#include <gtest/gtest.h>

#include "Orb/Orb.h"

namespace Demo {

enum class Shade : std::uint8_t { light = 0, dark = 3 };

struct Inner : Orb::ValueBase {
   std::uint64_t id = 0;
   bool flag = false;
   static constexpr std::string_view orbTypeName = "Demo::Inner";
   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("id", &Inner::id), Orb::field("flag", &Inner::flag));
   }
   bool operator==(const Inner&) const = default;
};

struct Outer : Orb::ValueBase {
   Inner inner;
   std::string label;
   double weight = 0;
   std::int16_t delta = 0;
   Shade shade = Shade::light;
   static constexpr std::string_view orbTypeName = "Demo::Outer";
   static constexpr auto orbFields() {
      return std::make_tuple(Orb::field("inner", &Outer::inner), Orb::field("label", &Outer::label),
                             Orb::field("weight", &Outer::weight),
                             Orb::field("delta", &Outer::delta),
                             Orb::field("shade", &Outer::shade));
   }
   bool operator==(const Outer&) const = default;
};

}  // namespace Demo

template <>
struct Orb::EnumInfo<Demo::Shade> {
   static constexpr std::string_view typeName = "Demo::Shade";
   static constexpr std::array<std::pair<Demo::Shade, std::string_view>, 2> values{
       {{Demo::Shade::light, "light"}, {Demo::Shade::dark, "dark"}}};
};

namespace {

TEST(OrbValue, PrintsReflectionFormAndParsesItBack) {
   Demo::Outer v;
   v.inner = {{}, 0xabcdef, true};
   v.label = "it's a \\ test";
   v.weight = 0.1;
   v.delta = -7;
   v.shade = Demo::Shade::dark;
   std::string text = Orb::toString(v);
   EXPECT_EQ(text,
             "Value('Demo::Outer', ** {'inner': Value('Demo::Inner', ** {'id': 11259375, 'flag': "
             "True}), 'label': 'it\\'s a \\\\ test', 'weight': 0.10000000000000001, 'delta': -7, "
             "'shade': dark})");
   EXPECT_EQ(Orb::fromString<Demo::Outer>(text), v);

   // Fields in another order, hexadecimal numbers and missing fields are accepted.
   EXPECT_EQ(Orb::fromString<Demo::Inner>("Value('Demo::Inner', ** {'flag': True, 'id': 0x10})"),
             (Demo::Inner{{}, 16, true}));
   EXPECT_EQ(Orb::fromString<Demo::Inner>("Value('Demo::Inner', ** {})"), Demo::Inner{});
}

TEST(OrbValue, MalformedTextIsAClearError) {
   const char* bad[] = {
       "Value('Demo::Other', ** {'id': 1})",             // wrong type name
       "Value('Demo::Inner', ** {'id': 1, 'size': 2})",  // unknown field
       "Value('Demo::Inner', ** {'id': -1})",            // negative into unsigned
       "Value('Demo::Inner', ** {'id': 1)",              // unbalanced
       "Value('Demo::Inner', ** {'id': 1}) trailing",
       "Value('Demo::Inner, ** {})",  // unterminated quote
       "",
   };
   for (const char* text : bad) {
      EXPECT_THROW(Orb::fromString<Demo::Inner>(text), Orb::ParseError) << text;
   }
   EXPECT_THROW(Orb::fromString<std::uint8_t>("256"), Orb::ParseError);
   try {
      Orb::fromString<Demo::Inner>("Value('Demo::Inner', ** {'idx': 1})");
   } catch (const Orb::ParseError& e) {
      EXPECT_NE(std::string(e.what()).find("not 'idx'"), std::string::npos) << e.what();
   }
}

TEST(OrbEnum, ConvertsBothWaysAndRejectsUnknown) {
   EXPECT_EQ(Orb::enumName(Demo::Shade::dark), "dark");
   EXPECT_EQ(Orb::enumName(static_cast<Demo::Shade>(9)), "9");
   EXPECT_EQ(Orb::fromString<Demo::Shade>("3"), Demo::Shade::dark);
   try {
      Orb::enumFromName<Demo::Shade>("medium");
      FAIL();
   } catch (const Orb::ParseError& e) {
      EXPECT_STREQ(e.what(), "unknown name 'medium' for enumeration Demo::Shade");
   }
   EXPECT_THROW(Orb::enumFromNumber<Demo::Shade>(1), Orb::ParseError);
}

}  // namespace
