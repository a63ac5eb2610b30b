#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
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
   // Reported once; the reader does not read the segment again, even where it looks whole.
   value[0] ^= 0x10;
   EXPECT_THROW(reader->entry(3), Brio::CorruptionDetectedException);
   EXPECT_THROW(reader->changesDrain(), Brio::CorruptionDetectedException);
   EXPECT_EQ(reader->numCorruptionDetectedOps(), 1u);
   EXPECT_EQ(notified.count, 1);

   // An index cell that points past the slots, and an index without an empty cell.
   auto expectDamage = [&](const std::string& what) {
      auto fresh = Vault::shmTableReaderNew<VersionTable>("status", shmName);
      std::string said;
      fresh->corruptionHandlerIs([&](const std::string& r) { said = r; });
      EXPECT_THROW(fresh->entry(3), Brio::CorruptionDetectedException);
      EXPECT_NE(said.find(what), std::string::npos) << said;
   };
   auto* cells = reinterpret_cast<std::uint64_t*>(raw.bytes() + g.indexOffset);
   const std::vector<std::uint64_t> good(cells, cells + g.indexSize);
   for (std::uint32_t i = 0; i < g.indexSize; ++i) {
      if (Vault::Shm::cellSlot(cells[i]) == 1) cells[i] += g.capacity + 5;
   }
   expectDamage("points past the slots");
   std::memset(cells, 0xFF, std::size_t(g.indexSize) * 8);
   expectDamage("index has no empty cell");
   std::copy(good.begin(), good.end(), cells);
   EXPECT_EQ(Vault::shmTableReaderNew<VersionTable>("status", shmName)->entry(3), 1u);
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

// Whatever another process writes into the writer's own segment, the writer neither spins nor
// strays out of bounds: it reports the damage once, without throwing into the middle of its
// caller's work, and leaves the segment alone from then on.
TEST(VaultShmCorruption, DamageUnderTheWriterIsReportedOnceAndNeverSpunOn) {
   auto expectDamageFound = [](const char* what, auto damage, const std::string& reason) {
      std::string shmName = uniqueShmName("wdmg");
      auto writer = filledWriter(shmName, 5);
      int reports = 0;
      std::string said;
      writer->corruptionHandlerIs([&](const std::string& r) {
         ++reports;
         said = r;
      });
      RawSegment raw(shmName);
      damage(raw, reinterpret_cast<Header*>(raw.bytes())->geometry);
      writer->entryIs(99, 1);
      EXPECT_NE(said.find(reason), std::string::npos) << what << ": " << said;
      writer->entryIs(100, 1);
      writer->entryDel(3);
      EXPECT_EQ(writer->entry(6), 0u) << what;
      EXPECT_EQ(reports, 1) << what;
   };
   auto cells = [](RawSegment& raw, const Vault::Shm::Geometry& g) {
      return reinterpret_cast<std::uint64_t*>(raw.bytes() + g.indexOffset);
   };
   expectDamageFound(
       "index of 0xFF",
       [&](RawSegment& raw, const Vault::Shm::Geometry& g) {
          std::memset(cells(raw, g), 0xFF, std::size_t(g.indexSize) * 8);
       },
       "index has no empty cell");
   expectDamageFound(
       "cells naming slots never used",
       [&](RawSegment& raw, const Vault::Shm::Geometry& g) {
          for (std::uint32_t i = 0; i < g.indexSize; ++i) cells(raw, g)[i] = g.capacity;
       },
       "not in use");
}

// A segment cut short under its writer and a reader: neither dies of the fault.
TEST(VaultShmCorruption, ASegmentCutShortUnderItsMappingsIsCorruptionNotAFault) {
   std::string shmName = uniqueShmName("trunc");
   auto writer = filledWriter(shmName, 5);
   auto reader = Vault::shmTableReaderNew<VersionTable>("status", shmName);
   ASSERT_EQ(reader->entry(3), 1u);
   int fd = ::shm_open(shmName.c_str(), O_RDWR, 0);
   ASSERT_EQ(::ftruncate(fd, 0), 0);
   ::close(fd);
   EXPECT_THROW(reader->entry(3), Brio::CorruptionDetectedException);
   writer->entryIs(3, 7);
   writer->entryIs(4, 7);
   EXPECT_EQ(writer->entry(4), 0u);
   EXPECT_EQ(writer->numCorruptionDetectedOps(), 1u);
}

std::uint64_t fuzzSeed() {
   const char* env = std::getenv("VAULT_FUZZ_SEED");
   std::uint64_t seed = env ? std::strtoull(env, nullptr, 0) : std::random_device()();
   std::printf("fuzz seed %llu (VAULT_FUZZ_SEED to repeat)\n", (unsigned long long)seed);
   return seed;
}

int fuzzIterations() {
   const char* env = std::getenv("VAULT_FUZZ_ITERATIONS");
   return env ? std::atoi(env) : 300;
}

void bitsFlip(std::mt19937_64& random, unsigned char* bytes, std::size_t size) {
   int flips = 1 + static_cast<int>(random() % 8);
   for (int f = 0; f < flips; ++f) {
      // Half the damage goes into the header and the slots, where most of the checks are.
      std::size_t span = random() % 2 ? std::min<std::size_t>(4096, size) : size;
      bytes[random() % span] ^= static_cast<unsigned char>(1u << (random() % 8));
   }
}

TEST(VaultShmCorruption, RandomlyDamagedSegmentsNeverCrashAReader) {
   std::string shmName = uniqueShmName("fuzz");
   auto writer = filledWriter(shmName, 20);
   for (std::uint64_t key = 3; key <= 30; key += 3) writer->entryDel(key);
   const auto good = RawSegment(shmName).copy();
   const int iterations = fuzzIterations();
   std::mt19937_64 random(fuzzSeed());
   int mounted = 0;
   for (int i = 0; i < iterations; ++i) {
      auto bytes = good;
      bitsFlip(random, bytes.data(), bytes.size());
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

// The writer's side: its own segment damaged in place between its changes. It may refuse to go
// on, never crash or spin; a writer that refused is replaced by a fresh one.
TEST(VaultShmCorruption, RandomlyDamagedSegmentsNeverCrashTheirWriter) {
   const int iterations = fuzzIterations();
   std::mt19937_64 random(fuzzSeed());
   std::string shmName = uniqueShmName("wfuzz");
   Orb::Ptr<VersionTable> writer;
   std::unique_ptr<RawSegment> raw;
   int refusals = 0;
   for (int i = 0; i < iterations; ++i) {
      if (!writer) {
         writer = filledWriter(shmName, 20);
         raw = std::make_unique<RawSegment>(shmName);
      }
      bitsFlip(random, raw->bytes(), raw->size());
      try {
         for (int op = 0; op < 4; ++op) {
            std::uint64_t key = random() % 40;
            if (random() % 3 == 0) {
               writer->entryDel(key);
            } else {
               writer->entryIs(key, random());
            }
            writer->entry(random() % 40);
         }
      } catch (const Vault::TableFullException&) {
      }
      if (writer->numCorruptionDetectedOps() != 0) {
         ++refusals;
         raw.reset();
         writer.reset();
      }
   }
   std::printf("writer refused %d of %d damaged segments\n", refusals, iterations);
}

}  // namespace
