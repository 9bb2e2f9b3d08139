// The diagnostic log: the trim that keeps it near 32 KiB, and a trim that cannot finish.
// Its lines, levels and the level read from the settings file are the black-box tests'
// part.
#include "logging/logging.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <vector>

#include "files.h"
#include "platform/platform.h"
#include "sandbox.h"

namespace {

// size bytes of 'x' with newlines at the given offsets.
std::string filled(size_t size, const std::vector<size_t> &newlines) {
  std::string s(size, 'x');
  for (size_t at : newlines) s[at] = '\n';
  return s;
}

// text is head (compared as is) followed by something matching tail_re.
bool head_then(const std::string &text, const std::string &head, const std::string &tail_re) {
  return text.compare(0, head.size(), head) == 0 &&
         std::regex_match(text.substr(head.size()), std::regex(tail_re));
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_SANDBOX();
    char tmpl[] = "/tmp/logtest.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    path = dir + "/logd.log";
  }
  void TearDown() override {
    log_close();
    LogSink.mask = 0;
    if (!dir.empty()) sandbox_wipe(dir.c_str());
  }
  std::string dir, path;
};

// log_open trims a file left by an earlier run.
TEST_F(LogTest, TrimKeepsTailFromWholeLine) {
  struct Case {
    size_t size;
    std::vector<size_t> newlines;
    long kept_from;  // -1: left whole
  } cases[] = {
      {32767, {20000, 32766}, -1}, {32768, {13000, 13200, 20000, 32767}, 13201},  // start 13107
      {32768, {13107, 32767}, 13108},         // newline right at start
      {32768, {13106, 13500, 32767}, 13501},  // line beginning at start dropped
      {32768, {1000}, -1},                    // no newline behind start
      {32768, {32767}, 32768},                // last byte only: empty file
      {54613, {21900, 41600}, 21901}, {54614, {21900, 41600}, 41601},  // start 21845, 41507
      {100000, {40000, 87000, 99999}, 87001}};  // start 86893
  for (const Case &c : cases) {
    std::string original = filled(c.size, c.newlines);
    ASSERT_TRUE(spill(path, original));
    log_init(path.c_str(), nullptr, LOG_MASK_FILE);
    EXPECT_EQ(slurp(path), c.kept_from < 0 ? original : original.substr(c.kept_from)) << c.size;
    EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);
  }
  std::string original = filled(32760, {20000, 32759});
  ASSERT_TRUE(spill(path, original));
  log_init(path.c_str(), nullptr, LOG_MASK_FILE);
  DLOG_ERROR("one");  // crosses 32768 while running
  DLOG_ERROR("two");  // goes to the new stream
  EXPECT_TRUE(head_then(slurp(path), original.substr(20001), "[^\n]*  one\n[^\n]*  two\n"));

  // Without a temporary file the log stays whole.
  log_close();
  original = filled(40000, {20000, 39999});
  ASSERT_TRUE(spill(path, original));
  ASSERT_EQ(mkdir((path + ".tmp").c_str(), 0700), 0);  // "w+" cannot open it
  log_init(path.c_str(), nullptr, LOG_MASK_FILE);
  DLOG_ERROR("still here");
  EXPECT_TRUE(head_then(slurp(path), original, "[^\n]*  still here\n"));
}

// Reads well up to kGoodEnd (the trim starts at 16000), then fails for ever.
struct FailingLog {
  static const long kSize = 40000, kGoodEnd = 16000 + 8192;
  long pos = 0;
  static ssize_t read(void *c, char *buf, size_t size) {
    FailingLog *f = static_cast<FailingLog *>(c);
    size_t n = f->pos >= kGoodEnd ? 0 : std::min(size, static_cast<size_t>(kGoodEnd - f->pos));
    for (size_t i = 0; i < n; i++) buf[i] = (f->pos + i) % 100 == 99 ? '\n' : 'x';
    f->pos += n;
    return n > 0 ? static_cast<ssize_t>(n) : -1;
  }
  static int seek(void *c, off64_t *off, int whence) {
    FailingLog *f = static_cast<FailingLog *>(c);
    *off = f->pos = (whence == SEEK_SET ? 0 : whence == SEEK_CUR ? f->pos : kSize) + *off;
    return 0;
  }
};

TEST_F(LogTest, ReadErrorDuringCopyAbandonsTrim) {
  ASSERT_TRUE(spill(path, "untouched\n"));
  FailingLog fake;
  FILE *stream = fopencookie(&fake, "r", {FailingLog::read, nullptr, FailingLog::seek, nullptr});
  ASSERT_NE(stream, nullptr);
  LogSinkRecord sink = {stream, strdup(path.c_str()), 0, LOG_MASK_FILE};
  alarm(20);  // an endless copy loop kills the test binary
  log_trim(&sink);
  alarm(0);
  EXPECT_EQ(sink.file, stream);
  EXPECT_EQ(ferror(stream), 0);  // the next line may try again
  EXPECT_EQ(slurp(path), "untouched\n");
  EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);
  fclose(stream);
  free(sink.path);
}

}  // namespace
