#include "SliceSystem/FaultOption.h"

#include <sstream>
#include <vector>

namespace SliceSystem {

bool faultOptionParse(const std::string& text, TimedFault& timed, std::string& error) {
   timed = TimedFault();
   std::string fields = text;
   try {
      if (auto at = fields.find('@'); at != std::string::npos) {
         timed.at = std::stod(fields.substr(at + 1));
         fields.resize(at);
      }
      std::vector<std::string> parts;
      std::istringstream in(fields);
      for (std::string part; std::getline(in, part, ':');) parts.push_back(part);
      if (parts.size() < 3 || parts.size() > 5 ||
          !ChipModel::faultKindFromName(parts[0], timed.fault.kind)) {
         error = "fault '" + text + "': expected drop|corrupt|stray:TABLE:HANDLE[:INDEX[:SUB]]";
         return false;
      }
      std::uint32_t* fields[] = {&timed.fault.tblHdl, &timed.fault.hdl, &timed.fault.index,
                                 &timed.fault.subIndex};
      for (std::size_t i = 1; i < parts.size(); ++i) {
         *fields[i - 1] = static_cast<std::uint32_t>(std::stoul(parts[i], nullptr, 0));
      }
   } catch (const std::exception&) {
      error = "fault '" + text + "': bad number";
      return false;
   }
   return true;
}

}  // namespace SliceSystem
