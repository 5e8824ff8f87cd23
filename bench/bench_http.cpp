// What a download costs: 100 MB from a local server (cpp-httplib, over HTTP and over HTTPS
// with a certificate of a CA made for the run) into a file, by VESKHTTPRequest and by the curl
// command-line program fetching the same URL in the same run, rounds interleaved.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "Latencies.h"
#include "networking/TestServers.h"
#include "networking/VESKHTTPRequest.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;

double seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

double megabytesPerSecond(double elapsed) {
  return static_cast<double>(vesk::test::kBigResourceSize) / (1024.0 * 1024.0) / elapsed;
}

void compare(const char* what, const std::string& url, const std::vector<std::string>& curlFlags,
             const std::string& file) {
  std::vector<double> ours, theirs;
  for (int round = 0; round < kRounds; ++round) {
    std::filesystem::remove(file);
    vesk::VESKHTTPRequest request(url);
    request.setDownloadFilePath(file);
    auto start = Clock::now();
    request.submitRequest();
    ours.push_back(seconds(start));
    if (std::filesystem::file_size(file) != vesk::test::kBigResourceSize) {
      std::printf("short download\n");
      std::exit(1);
    }

    std::filesystem::remove(file);
    std::vector<std::string> arguments = {"-s", "-f", "-o", file};
    arguments.insert(arguments.end(), curlFlags.begin(), curlFlags.end());
    arguments.push_back(url);
    start = Clock::now();
    const auto result =
        vesk::test::runProgram("/usr/bin/curl", arguments, vesk::test::environmentWithout({}));
    theirs.push_back(seconds(start));
    if (result.status != 0) {
      std::printf("curl failed: %d\n", result.status);
      std::exit(1);
    }
  }
  std::sort(ours.begin(), ours.end());
  std::sort(theirs.begin(), theirs.end());
  const double oursMedian = megabytesPerSecond(ours[kRounds / 2]);
  const double theirsMedian = megabytesPerSecond(theirs[kRounds / 2]);
  std::printf("%-6s VESKHTTPRequest %7.0f MB/s   curl %7.0f MB/s   ratio %.2f (median of %d)\n",
              what, oursMedian, theirsMedian, oursMedian / theirsMedian, kRounds);
  vesk::bench::result(std::string(what) + " download of 100 MB by VESKHTTPRequest, median of " +
                          std::to_string(kRounds),
                      vesk::bench::amount(oursMedian, "MB/s", 0), "none",
                      "curl, same URL " + vesk::bench::amount(theirsMedian, "MB/s", 0));
}

}  // namespace

int main() {
  vesk::test::TestCertificates certificates;
  ::setenv("VESK_ROOT", certificates.trustingRoot().c_str(), 1);
  vesk::test::TemporaryFolder folder;
  const std::string file = (folder.path() / "big.bin").string();

  vesk::test::TestServer plain(nullptr, vesk::test::TestServer::Identity::None);
  compare("http", plain.url("/big"), {}, file);
  vesk::test::TestServer secure(&certificates, vesk::test::TestServer::Identity::CASigned);
  compare("https", secure.url("/big", "localhost"),
          {"--cacert", certificates.file("ca.pem").string()}, file);
  return 0;
}
