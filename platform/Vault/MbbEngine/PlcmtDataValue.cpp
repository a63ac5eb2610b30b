#include "Vault/MbbEngine/PlcmtDataValue.h"

namespace {

int hexDigit(char c) {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

}  // namespace

void Orb::ValueTraits<ChipSdk::PlcmtDataBlock>::print(std::string& out,
                                                      const ChipSdk::PlcmtDataBlock& block) {
   static constexpr char digits[] = "0123456789abcdef";
   std::size_t used = block.bytes.size();
   while (used > 0 && block.bytes[used - 1] == 0) --used;
   out += '\'';
   for (std::size_t i = 0; i < used; ++i) {
      out += digits[block.bytes[i] >> 4];
      out += digits[block.bytes[i] & 0xF];
   }
   out += '\'';
}

ChipSdk::PlcmtDataBlock Orb::ValueTraits<ChipSdk::PlcmtDataBlock>::parse(Parser& p) {
   std::string text = p.quoted();
   ChipSdk::PlcmtDataBlock block;
   if (text.size() % 2 != 0 || text.size() / 2 > block.bytes.size()) {
      p.fail("pairs of hexadecimal digits, at most " + std::to_string(block.bytes.size()) +
             " bytes");
   }
   for (std::size_t i = 0; i < text.size(); i += 2) {
      int high = hexDigit(text[i]);
      int low = hexDigit(text[i + 1]);
      if (high < 0 || low < 0) p.fail("hexadecimal digits");
      block.bytes[i / 2] = static_cast<std::uint8_t>(high << 4 | low);
   }
   return block;
}
