#include "ChipModel/detail/HandleSet.h"

namespace ChipModel {

bool HandleSet::contains(std::uint32_t hdl) const {
   std::uint32_t at = pageAt(hdl >> pageShift);
   if (at == OpenMap<std::uint32_t>::absent) return false;
   unsigned bit = hdl & ((1u << pageShift) - 1);
   return (pages_[at].words[bit >> 6] >> (bit & 63)) & 1;
}

void HandleSet::insert(std::uint32_t hdl) {
   std::uint32_t pageId = hdl >> pageShift;
   std::uint32_t at = pageAt(pageId);
   if (at == OpenMap<std::uint32_t>::absent) {
      at = pages_.alloc();
      pageOf_.insert(pageId + 1, at);
      pageIds_.insert(pageId);
   }
   Page& page = pages_[at];
   unsigned bit = hdl & ((1u << pageShift) - 1);
   std::uint64_t mask = std::uint64_t{1} << (bit & 63);
   std::uint64_t& word = page.words[bit >> 6];
   if (word & mask) return;
   word |= mask;
   page.summary |= 1u << (bit >> 6);
   ++page.count;
   ++size_;
}

void HandleSet::erase(std::uint32_t hdl) {
   std::uint32_t pageId = hdl >> pageShift;
   std::uint32_t at = pageAt(pageId);
   if (at == OpenMap<std::uint32_t>::absent) return;
   Page& page = pages_[at];
   unsigned bit = hdl & ((1u << pageShift) - 1);
   std::uint64_t mask = std::uint64_t{1} << (bit & 63);
   std::uint64_t& word = page.words[bit >> 6];
   if (!(word & mask)) return;
   word &= ~mask;
   if (word == 0) page.summary &= ~(1u << (bit >> 6));
   --size_;
   if (--page.count == 0) {
      // Dropping empty pages keeps a walk from crossing ranges of handles long gone.
      pageOf_.erase(pageId + 1);
      pageIds_.erase(pageId);
      pages_.release(at);
   }
}

std::size_t HandleSet::scanPage(std::uint32_t pageId, const Page& page, unsigned firstBit,
                                std::size_t count, std::vector<std::uint32_t>& out) const {
   std::size_t added = 0;
   unsigned w = firstBit >> 6;
   std::uint64_t word = page.words[w] & (~std::uint64_t{0} << (firstBit & 63));
   while (added < count) {
      while (word == 0) {
         std::uint32_t rest = w + 1 < wordsPerPage ? page.summary >> (w + 1) : 0;
         if (rest == 0) return added;
         w += 1 + static_cast<unsigned>(__builtin_ctz(rest));
         word = page.words[w];
      }
      unsigned bit = static_cast<unsigned>(__builtin_ctzll(word));
      word &= word - 1;
      out.push_back((pageId << pageShift) | (w << 6) | bit);
      ++added;
   }
   return added;
}

std::size_t HandleSet::next(std::uint32_t after, std::size_t count,
                            std::vector<std::uint32_t>& out) const {
   if (after == 0xFFFFFFFF || count == 0) return 0;
   std::uint32_t start = after + 1;
   std::uint32_t startPage = start >> pageShift;
   std::size_t added = 0;
   for (auto it = pageIds_.lower_bound(startPage); it != pageIds_.end() && added < count; ++it) {
      unsigned firstBit = *it == startPage ? (start & ((1u << pageShift) - 1)) : 0;
      added += scanPage(*it, pages_[pageAt(*it)], firstBit, count - added, out);
   }
   return added;
}

}  // namespace ChipModel
