#include "SliceSystem/Routes.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <unordered_set>

#include <zlib.h>

namespace SliceSystem {

std::uint64_t mix64(std::uint64_t x) {
   x += 0x9e3779b97f4a7c15ULL;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
   return x ^ (x >> 31);
}

std::uint64_t Route::key() const {
   std::uint64_t hi = 0;
   std::uint64_t lo = 0;
   for (int i = 0; i < 8; ++i) hi = hi << 8 | addr[i];
   for (int i = 8; i < 16; ++i) lo = lo << 8 | addr[i];
   std::uint64_t key = mix64(hi ^ mix64(lo ^ mix64(std::uint64_t(len) << 1 | v6)));
   return key ? key : 1;
}

std::string Route::text() const {
   char buf[INET6_ADDRSTRLEN + 8];
   inet_ntop(v6 ? AF_INET6 : AF_INET, addr.data(), buf, sizeof buf);
   return std::string(buf) + "/" + std::to_string(len);
}

namespace {

bool routeParse(const std::string& line, Route& route) {
   auto slash = line.find('/');
   if (slash == std::string::npos) return false;
   std::string address = line.substr(0, slash);
   int len = std::atoi(line.c_str() + slash + 1);
   route = Route{};
   route.v6 = address.find(':') != std::string::npos;
   if (inet_pton(route.v6 ? AF_INET6 : AF_INET, address.c_str(), route.addr.data()) != 1) {
      return false;
   }
   if (len < 0 || len > (route.v6 ? 128 : 32)) return false;
   route.len = static_cast<std::uint8_t>(len);
   return true;
}

}  // namespace

bool routesFromFile(const std::string& path, std::size_t count, std::vector<Route>& routes,
                    std::string& error) {
   if (!std::ifstream(path).good()) {
      error = "cannot read " + path;
      return false;
   }
   // zlib reads a plain file as it is, so one reader serves both.
   std::unique_ptr<gzFile_s, int (*)(gzFile)> in(gzopen(path.c_str(), "rb"), gzclose);
   if (!in) {
      error = "cannot open " + path;
      return false;
   }
   std::unordered_set<std::uint64_t> keys;
   char buf[256];
   Route route;
   while (routes.size() < count && gzgets(in.get(), buf, sizeof buf)) {
      std::string line(buf);
      while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
      if (routeParse(line, route) && keys.insert(route.key()).second) routes.push_back(route);
   }
   int status = Z_OK;
   gzerror(in.get(), &status);
   if (status != Z_OK && status != Z_STREAM_END) {
      error = path + " is damaged: " + gzerror(in.get(), &status);
      return false;
   }
   if (routes.empty()) {
      error = "no prefixes in " + path;
      return false;
   }
   return true;
}

std::vector<Route> syntheticRoutes(std::size_t count, std::uint64_t seed) {
   std::vector<Route> routes;
   routes.reserve(count);
   std::unordered_set<std::uint64_t> keys;
   for (std::uint64_t i = 0; routes.size() < count; ++i) {
      std::uint64_t r = mix64(seed ^ mix64(i));
      Route route;
      route.len = static_cast<std::uint8_t>(16 + r % 17);
      std::uint32_t address = static_cast<std::uint32_t>(r >> 32);
      address &= route.len == 0 ? 0 : ~std::uint32_t(0) << (32 - route.len);
      for (int b = 0; b < 4; ++b)
         route.addr[b] = static_cast<std::uint8_t>(address >> (24 - 8 * b));
      if (keys.insert(route.key()).second) routes.push_back(route);
   }
   return routes;
}

std::string defaultPrefixesPath() {
#ifdef SLICE_PREFIXES_PATH
   if (std::ifstream(SLICE_PREFIXES_PATH).good()) return SLICE_PREFIXES_PATH;
#endif
   return "";
}

std::vector<Route> routesLoad(const std::string& path, std::size_t count, std::string& source) {
   std::vector<Route> routes;
   std::string file = path.empty() ? defaultPrefixesPath() : path;
   std::string error;
   if (file != "synthetic" && !file.empty() && routesFromFile(file, count, routes, error)) {
      source = file;
   } else {
      source = "generator";
   }
   if (routes.size() < count) {
      std::unordered_set<std::uint64_t> keys;
      for (const Route& r : routes) keys.insert(r.key());
      std::size_t missing = count - routes.size();
      if (!routes.empty()) source += " + generator";
      for (std::uint64_t seed = 1; missing > 0; ++seed) {
         for (const Route& r : syntheticRoutes(missing, seed)) {
            if (missing > 0 && keys.insert(r.key()).second) {
               routes.push_back(r);
               --missing;
            }
         }
      }
   }
   return routes;
}

}  // namespace SliceSystem
