// The memory both readings take on the message shapes that cost them the most per byte: the
// reading's own growth of a child's peak resident memory must leave the message within the
// bound that docs/configuration.md gives, 4 times its size plus 10 MB. Memory, not time: the
// child's ru_maxrss before and after the reading.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "lumora/mailcontent/MailParser.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Errors.h"
#include "mailcontent/MemoryShapes.h"

#if defined(__SANITIZE_ADDRESS__)
#define LUMORA_MEMORY_MEASURED 0  // the sanitizer's shadow memory is counted too
#else
#define LUMORA_MEMORY_MEASURED 1
#endif

namespace lumora {
namespace {

long maxResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// What the reading of the message that `make` gives takes, in bytes over the child holding the
// message: the growth of the child's peak. Negative when the child failed.
long long readingGrowth(const std::function<std::string()>& make,
                        const std::function<void(std::string_view)>& reading) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    close(fds[0]);
    long long growth = -1;
    {
      const std::string message = make();
      const long before = maxResidentKiB();
      try {
        reading(message);
      } catch (const Error&) {
        // A refused message counts as read: what the refusal took is measured all the same.
      }
      growth = (maxResidentKiB() - before) * 1024LL;
    }
    (void)!write(fds[1], &growth, sizeof growth);
    _exit(0);
  }
  close(fds[1]);
  long long growth = -1;
  if (read(fds[0], &growth, sizeof growth) != sizeof growth) growth = -1;
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? growth : -1;
}

TEST(ReadingMemory, StaysWithinFourTimesTheMessagePlusTenMegabytes) {
  if (!LUMORA_MEMORY_MEASURED) GTEST_SKIP() << "memory is not measured under the sanitizer";
  debug::setSink({});
  constexpr size_t kBytes = 8'000'000;
  const auto quoted = [](std::string_view m) { (void)MailParser::quotedTexts(m, size_t{8} << 20); };
  const auto whole = [](std::string_view m) { (void)MailReader::read(m); };
  using namespace testing;
  struct Case {
    const char* name;
    std::function<std::string(size_t)> make;
    std::function<void(std::string_view)> read;
    // Beside the bound: the passages of nested quotations fill the request budget by design.
    long long passages = 0;
  };
  const auto quotations = [](size_t n) { return htmlShape("<blockquote>q", n); };
  const Case cases[] = {
      {"sibling parts of 10 bytes, quoted", siblingParts, quoted},
      {"sibling parts of 10 bytes, whole message", siblingParts, whole},
      {"sibling parts with a header field, quoted", siblingPartsWithHeaders, quoted},
      {"sibling parts with a header field, whole message", siblingPartsWithHeaders, whole},
      {"nested multiparts, quoted", nestedMultiparts, quoted},
      {"nested multiparts, whole message", nestedMultiparts, whole},
      {"header of short lines, quoted", headerLines, quoted},
      {"header of short lines, whole message", headerLines, whole},
      {"one long header field, quoted", longHeader, quoted},
      {"one long header field, whole message", longHeader, whole},
      {"a parameter every 5 bytes, quoted", manyParameters, quoted},
      {"a parameter every 5 bytes, whole message", manyParameters, whole},
      {"HTML <div> never closed, quoted", [](size_t n) { return htmlShape("<div>", n); }, quoted},
      {"HTML <div> never closed, whole message", [](size_t n) { return htmlShape("<div>", n); },
       whole},
      // A quotation of one word every 13 bytes, nested as deep as the parse nests: a tree of two
      // nodes and two lines (the word and the blank line before it) per 13 bytes, and a thread
      // that marks each line with eight quote marks.
      {"HTML <blockquote>q nested, quoted", quotations, quoted, 8LL << 20},
      {"HTML <blockquote>q nested, whole message", quotations, whole},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const long long growth = readingGrowth([&] { return c.make(kBytes); }, c.read);
    ASSERT_GE(growth, 0) << "the child failed";
    // The message itself is held beside the reading: three times its size and 10 MB are left.
    EXPECT_LE(growth, 3LL * kBytes + 10'000'000LL + c.passages);
  }
}

}  // namespace
}  // namespace lumora
