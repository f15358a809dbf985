#include "platform/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/write_batch.h"

namespace gab {
namespace {

namespace fs = std::filesystem;

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/gabfolio-files-XXXXXX";
    ASSERT_TRUE(mkdtemp(tmpl));
    dir_ = tmpl;
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

// Transcripts come from anywhere: only regular files of a bounded size are
// read, and nothing blocks (a FIFO without a writer would hang a plain read).
TEST_F(FilesTest, ReadsOnlyRegularFilesWithinTheLimit) {
  std::ofstream(dir_ / "small") << "12345";
  std::ofstream(dir_ / "large") << std::string(100, 'x');
  ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  fs::create_directory(dir_ / "folder");
  fs::create_symlink(dir_ / "small", dir_ / "link");
  struct Case {
    const char* name;
    const char* content;  // null: not read
    const char* why;
  };
  const Case cases[] = {
      {"small", "12345", ""},          {"link", "12345", ""},
      {"large", nullptr, "too large"}, {"fifo", nullptr, "not a regular file"},
      {"folder", nullptr, "a folder"}, {"absent", nullptr, "No such file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string why;
    auto data = ReadRegularFile((dir_ / c.name).string(), 50, &why);
    EXPECT_EQ(data.has_value(), c.content != nullptr);
    if (c.content) {
      EXPECT_EQ(*data, c.content);
    }
    EXPECT_NE(why.find(c.why), std::string::npos) << why;
  }
  EXPECT_GE(UntrustedFileLimit(), size_t(64) << 20);
}

// An output named by the user may be a device or a pipe (-o /dev/null): it is
// written into, never replaced by a regular file; stores never replace one.
TEST_F(FilesTest, OutputIntoDevicesAndPipesKeepsThem) {
  ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] {
    std::ifstream in(dir_ / "fifo");
    std::getline(in, received);
  });
  EXPECT_TRUE(WriteOutputFile((dir_ / "fifo").string(), "through the pipe\n"));
  reader.join();
  EXPECT_EQ(received, "through the pipe");
  EXPECT_TRUE(WriteOutputFile("/dev/null", "gone"));
  struct stat st {};
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));

  std::string why;
  EXPECT_FALSE(WriteFileAtomically((dir_ / "fifo").string(), "x", 0644, &why));
  EXPECT_NE(why.find("not a regular file"), std::string::npos) << why;
  ASSERT_EQ(lstat((dir_ / "fifo").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_TRUE(WriteOutputFile((dir_ / "plain").string(), "new"));
  std::ifstream plain(dir_ / "plain");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(plain), {}), "new");
}

// A batch reaches the disk whole at commit, or not at all; a journal left by
// a killed commit is applied by the next recovery.
TEST_F(FilesTest, WriteBatchCommitsTogetherAndRecovers) {
  const std::string a = (dir_ / "a").string(), b = (dir_ / "b").string();
  std::ofstream(a) << "old";
  {
    WriteBatch batch(dir_.string());
    ASSERT_TRUE(WriteFileAtomically(a, "new a"));
    ASSERT_TRUE(WriteFileAtomically(b, "new b"));
    EXPECT_EQ(ReadWholeFile(a), "new a");  // reads see what the batch holds
    EXPECT_TRUE(FileExists(b));
    EXPECT_FALSE(fs::exists(b));  // ... the disk does not, yet
  }                               // dropped uncommitted
  EXPECT_EQ(ReadWholeFile(a), "old");
  EXPECT_FALSE(fs::exists(b));

  {
    WriteBatch batch(dir_.string());
    ASSERT_TRUE(WriteFileAtomically(a, "first"));
    ASSERT_TRUE(WriteFileAtomically(a, "second"));
    std::string err;
    ASSERT_TRUE(batch.Commit(&err)) << err;
  }
  EXPECT_EQ(ReadWholeFile(a), "second");
  EXPECT_FALSE(HasPendingWriteBatch(dir_.string()));

  // A commit that could not finish applying leaves its journal behind.
  fs::create_directory(dir_ / "sub");
  {
    WriteBatch batch(dir_.string());
    ASSERT_TRUE(WriteFileAtomically(a, "third"));
    ASSERT_TRUE(WriteFileAtomically((dir_ / "sub" / "c").string(), "c"));
    fs::permissions(dir_ / "sub", fs::perms::owner_read | fs::perms::owner_exec);
    std::string err;
    bool committed = batch.Commit(&err);
    fs::permissions(dir_ / "sub", fs::perms::owner_all);
    if (geteuid() != 0) {  // root writes into read-only folders
      EXPECT_FALSE(committed);
      EXPECT_TRUE(HasPendingWriteBatch(dir_.string()));
    }
  }
  std::string err;
  EXPECT_TRUE(RecoverWriteBatch(dir_.string(), &err)) << err;
  EXPECT_EQ(ReadWholeFile(a), "third");
  EXPECT_EQ(ReadWholeFile((dir_ / "sub" / "c").string()), "c");
  EXPECT_FALSE(HasPendingWriteBatch(dir_.string()));

  // A damaged journal is kept aside, never half applied.
  std::ofstream(dir_ / ".pending-writes") << "GABFOLIO-JOURNAL 1\nW garbage";
  EXPECT_FALSE(RecoverWriteBatch(dir_.string(), &err));
  EXPECT_NE(err.find("damaged"), std::string::npos) << err;
  EXPECT_EQ(ReadWholeFile(a), "third");
}

}  // namespace
}  // namespace gab
