#include "ChipModel/detail/PlcmtDataText.h"

#include <cerrno>
#include <cstdio>

#include <sys/socket.h>
#include <unistd.h>

namespace ChipModel {

std::string plcmtDataText(const ChipSdk::PlcmtDataView& view) {
   using ChipSdk::PlcmtAction;
   if (!view.ok()) {
      return std::string("invalid placement data (") + ChipSdk::plcmtDataStatusName(view.status) +
             ")";
   }
   char head[96];
   switch (view.action) {
      case ChipSdk::PlcmtAction::adtMember:
         std::snprintf(head, sizeof(head), "action: adt member 0x%x", view.adtMbrHdl);
         break;
      case ChipSdk::PlcmtAction::selGroup:
         std::snprintf(head, sizeof(head), "action: group 0x%llx vectors %u",
                       static_cast<unsigned long long>(view.selGrpKey), view.numVectors);
         break;
      default:
         std::snprintf(head, sizeof(head), "action: none");
         break;
   }
   std::string text = head;
   text += ", payload:";
   for (std::size_t i = 0; i < view.payloadSize; ++i) {
      char byte[4];
      std::snprintf(byte, sizeof(byte), " %02x", view.payload[i]);
      text += byte;
   }
   return text;
}

std::string plcmtDataText(const ChipSdk::PlcmtDataBlock& block) {
   return plcmtDataText(ChipSdk::plcmtDataParse(block));
}

bool fdWrite(int fd, const std::string& text) {
   std::size_t done = 0;
   bool isSocket = true;
   while (done < text.size()) {
      ssize_t wrote = isSocket ? ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL)
                               : ::write(fd, text.data() + done, text.size() - done);
      if (wrote < 0 && isSocket && errno == ENOTSOCK) {
         isSocket = false;
         continue;
      }
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) return false;
      done += static_cast<std::size_t>(wrote);
   }
   return true;
}

}  // namespace ChipModel
