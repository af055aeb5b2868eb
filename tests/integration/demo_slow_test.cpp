// The demo on a gigabyte: pages that 4 and 16 processes share, and nothing left of them.

#include "support/demo_test.h"

#include <cstring>
#include <fstream>
#include <random>

namespace vyn::test {
namespace {

constexpr std::uintmax_t kSize = 1U << 30U;

class LargeDemoTest : public DemoTest {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the executors' checksums of a gigabyte each take many minutes under a sanitizer";
#endif
    if (std::filesystem::space("/dev/shm").available < kSize + kSize / 2 ||
        std::filesystem::space(mFolder.Path()).available < kSize / 4) {
      GTEST_SKIP() << "no room for a gigabyte";
    }
    mFile = mFolder / "file";
    std::ofstream(mFile).close();
    std::filesystem::resize_file(mFile, kSize);
    // Random bytes in every block, and holes between them that cost the disk nothing.
    std::fstream file(mFile, std::ios::in | std::ios::out | std::ios::binary);
    std::mt19937_64 random(std::random_device{}());
    std::string bytes(256U << 10U, '\0');
    for (std::uintmax_t offset = 1000; offset + bytes.size() < kSize; offset += 4U << 20U) {
      for (std::size_t i = 0; i < bytes.size(); i += sizeof(std::uint64_t)) {
        const std::uint64_t number = random();
        std::memcpy(bytes.data() + i, &number, sizeof(number));
      }
      file.seekp(static_cast<std::streamoff>(offset));
      file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    file.close();
    ASSERT_FALSE(file.fail());
  }
};

TEST_F(LargeDemoTest, FourExecutorsReadAGigabyte) { ExpectEqual("--executors 4", 4); }

TEST_F(LargeDemoTest, SixteenExecutorsReadAGigabyte) { ExpectEqual("--executors 16", 16); }

}  // namespace
}  // namespace vyn::test
