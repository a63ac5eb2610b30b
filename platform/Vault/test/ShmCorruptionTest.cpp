#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <random>

#include "SampleTables.h"
#include "ShmTestUtil.h"
#include "Vault/Vault.h"
#include "Vault/detail/ShmLayout.h"

namespace {

using Vault::Shm::Header;
using VaultTest::VersionTable;

struct ShmCopy {
   explicit ShmCopy(const std::vector<unsigned char>& bytes) : name(uniqueShmName("copy")) {
      shmWrite(name, bytes);
   }
   ~ShmCopy() { ::shm_unlink(name.c_str()); }
   std::string name;
};

Orb::Ptr<VersionTable> filledWriter(const std::string& shmName, std::uint32_t count) {
   auto writer = Vault::shmTableWriterNew<VersionTable>("status", shmName, 32, 16);
   for (std::uint32_t key = 1; key <= count; ++key) writer->entryIs(key * 3, key);
   return writer;
}

Header& headerOf(std::vector<unsigned char>& bytes) {
   return *reinterpret_cast<Header*>(bytes.data());
}

void expectCorruptMount(const std::vector<unsigned char>& bytes, const std::string& reason) {
   ShmCopy copy(bytes);
   try {
      Vault::shmTableReaderNew<VersionTable>("status", copy.name);
      FAIL() << "mounted a segment with " << reason;
   } catch (const Brio::CorruptionDetectedException& e) {
      EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
   }
}

TEST(VaultShmCorruption, BadHeadersAreRefusedAtMount) {
   std::string shmName = uniqueShmName("hdr");
   auto writer = filledWriter(shmName, 5);
   const auto good = RawSegment(shmName).copy();

   auto bytes = good;
   headerOf(bytes).magic ^= 1;
   expectCorruptMount(bytes, "bad magic");

   bytes = good;
   headerOf(bytes).geometry.capacity = 1u << 20;
   expectCorruptMount(bytes, "bad header checksum");

   // A header that checks out but describes a segment larger than the file.
   bytes = good;
   headerOf(bytes).geometry = *Vault::Shm::geometryFor(8, 8, 1u << 20, 16);
   headerOf(bytes).checksum = Vault::Shm::headerChecksum(headerOf(bytes));
   expectCorruptMount(bytes, "sizes do not fit the file");

   bytes = good;
   headerOf(bytes).geometry.indexOffset += 64;
   headerOf(bytes).checksum = Vault::Shm::headerChecksum(headerOf(bytes));
   expectCorruptMount(bytes, "geometry does not hold together");

   bytes.assign(good.begin(), good.begin() + 100);
   expectCorruptMount(bytes, "smaller than its header");
}

struct CorruptionCounter : VersionTable::Notifiee {
   void onCorruptionDetected() override { ++count; }
   int count = 0;
};

TEST(VaultShmCorruption, BadRecordsRunTheCorruptionHandling) {
   std::string shmName = uniqueShmName("rec");
   auto writer = filledWriter(shmName, 5);
   auto reader = Vault::shmTableReaderNew<VersionTable>("status", shmName);
   std::string reason;
   reader->corruptionHandlerIs([&](const std::string& r) { reason = r; });
   CorruptionCounter notified;
   notified.notifierIs(reader.get());
   ASSERT_EQ(reader->entry(3), 1u);

   RawSegment raw(shmName);
   const Vault::Shm::Geometry g = reinterpret_cast<Header*>(raw.bytes())->geometry;
   // Slot 0 holds key 3: flip one bit of its value.
   unsigned char* value = raw.bytes() + g.slotsOffset + sizeof(Vault::Shm::SlotHeader) + 8;
   value[0] ^= 0x10;
   EXPECT_THROW(reader->entry(3), Brio::CorruptionDetectedException);
   EXPECT_NE(reason.find("slot 0: bad checksum"), std::string::npos) << reason;
   value[0] ^= 0x10;
   EXPECT_EQ(reader->entry(3), 1u);

   // An index cell that points past the slots.
   auto* cells = reinterpret_cast<std::uint64_t*>(raw.bytes() + g.indexOffset);
   for (std::uint32_t i = 0; i < g.indexSize; ++i) {
      if (Vault::Shm::cellSlot(cells[i]) == 1) cells[i] += g.capacity + 5;
   }
   EXPECT_THROW(reader->entry(3), Brio::CorruptionDetectedException);
   EXPECT_NE(reason.find("points past the slots"), std::string::npos) << reason;
   EXPECT_EQ(reader->numCorruptionDetectedOps(), 2u);
   EXPECT_EQ(notified.count, 2);
}

TEST(VaultShmCorruption, WriterThatDiedMidWriteIsDetected) {
   std::string shmName = uniqueShmName("died");
   auto writer = filledWriter(shmName, 5);
   auto bytes = RawSegment(shmName).copy();
   // The pid of a process that is gone.
   pid_t child = ::fork();
   if (child == 0) ::_exit(0);
   ::waitpid(child, nullptr, 0);
   headerOf(bytes).writerPid = static_cast<std::uint32_t>(child);
   auto& g = headerOf(bytes).geometry;
   auto* slot = reinterpret_cast<Vault::Shm::SlotHeader*>(bytes.data() + g.slotsOffset);
   slot->seq.fetch_add(1);  // key 3's slot, left half written
   ShmCopy copy(bytes);
   auto reader = Vault::shmTableReaderNew<VersionTable>("status", copy.name);
   EXPECT_EQ(reader->entry(6), 2u);
   try {
      reader->entry(3);
      FAIL() << "read a record that was never finished";
   } catch (const Brio::CorruptionDetectedException& e) {
      EXPECT_NE(std::string(e.what()).find("the writer died in the middle of a write"),
                std::string::npos)
          << e.what();
   }
}

// Reads everything a reader can be asked for; only corruption may come out.
void readAll(VersionTable& reader) {
   auto attempt = [](auto&& fn) {
      try {
         fn();
      } catch (const Brio::CorruptionDetectedException&) {
      }
   };
   for (std::uint64_t key = 0; key < 40; ++key) attempt([&] { reader.entry(key); });
   attempt([&] {
      for (const auto& entry : reader) (void)entry;
   });
   attempt([&] { reader.changesDrain(); });
   (void)reader.size();
}

TEST(VaultShmCorruption, RandomlyDamagedSegmentsNeverCrashAReader) {
   std::string shmName = uniqueShmName("fuzz");
   auto writer = filledWriter(shmName, 20);
   for (std::uint64_t key = 3; key <= 30; key += 3) writer->entryDel(key);
   const auto good = RawSegment(shmName).copy();
   const char* env = std::getenv("VAULT_FUZZ_ITERATIONS");
   const int iterations = env ? std::atoi(env) : 300;
   std::mt19937_64 random(20240601);
   int mounted = 0;
   for (int i = 0; i < iterations; ++i) {
      auto bytes = good;
      int flips = 1 + static_cast<int>(random() % 8);
      for (int f = 0; f < flips; ++f) {
         // Half the damage goes into the header and the slots, where most of the checks are.
         std::size_t span = random() % 2 ? 4096 : bytes.size();
         bytes[random() % span] ^= static_cast<unsigned char>(1u << (random() % 8));
      }
      headerOf(bytes).writerPid = 0;  // a half-written slot should not make the reader wait
      ShmCopy copy(bytes);
      Orb::Ptr<VersionTable> reader;
      try {
         reader = Vault::shmTableReaderNew<VersionTable>("status", copy.name);
      } catch (const Brio::CorruptionDetectedException&) {
         continue;
      } catch (const Vault::MountException&) {
         continue;
      }
      ++mounted;
      readAll(*reader);
   }
   EXPECT_GT(mounted, 0);
}

}  // namespace
