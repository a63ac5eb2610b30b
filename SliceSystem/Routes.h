#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace SliceSystem {

// A routing prefix as a match table keys it: address bytes (IPv4 in the first four) and length.
struct Route {
   std::array<std::uint8_t, 16> addr{};
   std::uint8_t len = 0;
   bool v6 = false;

   bool operator==(const Route&) const = default;
   // A 64-bit key that tells prefixes apart (distinct for every prefix the tools generate,
   // and for real tables in practice); never 0.
   std::uint64_t key() const;
   std::string text() const;
};

// Reads up to `count` prefixes in CIDR form, one per line ("10.0.0.0/8", "2001:db8::/32"),
// from a text file or a gzip file (read with zlib). Lines that do not parse are
// skipped. False, with the reason in `error`, when the file cannot be read at all.
bool routesFromFile(const std::string& path, std::size_t count, std::vector<Route>& routes,
                    std::string& error);

// `count` distinct IPv4 prefixes of lengths 16 to 32 from a seeded generator, for runs without
// the prefix file.
std::vector<Route> syntheticRoutes(std::size_t count, std::uint64_t seed);

// The routing table snapshot kept beside the repository, or empty when it is not there.
std::string defaultPrefixesPath();

// Prefixes from `path` (or the default file; "synthetic" forces the generator), topped up
// with generated ones when the file has fewer than `count`. `source` says where they came from.
std::vector<Route> routesLoad(const std::string& path, std::size_t count, std::string& source);

// splitmix64: the tools' one mixing function for keys and seeded choices.
std::uint64_t mix64(std::uint64_t x);

}  // namespace SliceSystem
