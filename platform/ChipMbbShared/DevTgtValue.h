#pragma once

// Device targets inside value types: printed in the reflection form, hashed for keys.

#include <cstddef>
#include <functional>
#include <string>

#include "HwPd/ChipDriver.h"
#include "Orb/Value.h"

template <>
struct Orb::ValueTraits<ChipDriver::ChipDevTgt> {
   static void print(std::string& out, const ChipDriver::ChipDevTgt& devTgt) {
      out += "Value('ChipDriver::ChipDevTgt', ** {'devId': ";
      printValue(out, devTgt.devId);
      out += ", 'pipeId': ";
      printValue(out, devTgt.pipeId);
      out += "})";
   }
   static ChipDriver::ChipDevTgt parse(Parser& p) {
      p.expect("Value(");
      if (p.quoted() != "ChipDriver::ChipDevTgt") p.fail("type name 'ChipDriver::ChipDevTgt'");
      p.expect(",");
      p.expect("**");
      p.expect("{");
      ChipDriver::ChipDevTgt devTgt;
      if (!p.consume("}")) {
         do {
            std::string name = p.quoted();
            p.expect(":");
            if (name == "devId") {
               devTgt.devId = parseValue<ChipId::DevId>(p);
            } else if (name == "pipeId") {
               devTgt.pipeId = parseValue<ChipId::PipeId>(p);
            } else {
               p.fail("a field of ChipDriver::ChipDevTgt, not '" + name + "'");
            }
         } while (p.consume(","));
         p.expect("}");
      }
      p.expect(")");
      return devTgt;
   }
};

template <>
struct std::hash<ChipDriver::ChipDevTgt> {
   std::size_t operator()(const ChipDriver::ChipDevTgt& devTgt) const {
      return (std::size_t(devTgt.devId) << 16) | devTgt.pipeId;
   }
};
