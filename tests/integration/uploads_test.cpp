// SPDX-License-Identifier: Apache-2.0
//
// Uploads from a client through the confined daemon to the upload server: delivery, removal, and refusal.
#include <fcntl.h>
#include <sys/stat.h>

#include <random>

#include "tests/support/daemon_fixture.h"
#include "util/message_log.h"

namespace telvora::test {
namespace {

using lab::UploadAnswer;
using std::filesystem::path;

constexpr char kUdid[] = "0123456789abcdef0123456789abcdef01234567";
constexpr char kRegularFilesOnly[] = "<3>UploadBackend(uploadFileAtPath): Only upload a regular file.";
const std::string kInvalid = "org.freedesktop.DBus.Error.InvalidArgs: ";
constexpr char kEmpty[] = "<3>UploadBackend(uploadFileAtPath): Input file is empty";

UniqueFd openForReading(const path& file) {
    return UniqueFd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// Incompressible bytes.
std::string noise(size_t size) {
    std::string bytes(size, '\0');
    std::independent_bits_engine<std::mt19937_64, 8, uint64_t> random;
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

class Uploads : public DaemonFixture {
  protected:
    Uploads() {
        // The test's directory is readable by all; the daemon may read a file if the client may.
        std::filesystem::create_directories(spool());
        laboratory().setBag("dravik", openBag({{"uploadServer", Dictionary{{"post_url", "@upload@"}}}}));
    }
    void start(Dictionary defaults = {}) {
        defaults.set("uploadDirectories", Array{spool().string(), "relative", 7});
        startDaemon([&](DaemonOptions& options) { options.defaults = defaults; });
        session_ = open();
    }
    Session open() { return DaemonFixture::open({}, {"httpPost", "uploadServer"}); }

    // A directory of uploads, and another directory.
    path spool() const { return directory().path() / "spool"; }
    path file(const std::string& name, std::string_view content = "content") const {
        return directory().write("spool/" + name, content);
    }
    path outside(const std::string& name, std::string_view content = "content") const {
        return directory().write("outside/" + name, content);
    }

    // A token for the file, which exists.
    std::string tokenFor(const path& file) {
        const auto token = session_->issueFileExtension(file, openForReading(file).get());
        EXPECT_TRUE(token) << token.error();
        return token.value_or("");
    }
    // Expects that the upload is refused with this line and that no upload reaches the server.
    void expectRefused(const path& file, const std::string& token = "",
                       const char* line = kRegularFilesOnly) {
        SCOPED_TRACE(file);
        const size_t before = uploads().uploadCount();
        const size_t from = daemon().logLineCount();
        EXPECT_FALSE(session_->uploadFile(file, token));
        expectLine(line, from);
        expectLine("<3>uploadFileWithURL: File upload failed for " + file.string(), from);
        EXPECT_EQ(uploads().uploadCount(), before);
    }
    lab::UploadServer& uploads() { return laboratory().uploads(); }

    Session session_;
};

TEST_F(Uploads, ArriveByteForByteAndVanish) {
    start();
    const std::string content = noise(300'000);
    const path log = file("a b.log", content);
    EXPECT_TRUE(
        session_->uploadFile("file://" + spool().string() + "/a%20b.log?query#fragment", tokenFor(log)));

    const auto received = uploads().uploads();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].target, std::string("/upload?uuid=") + kUdid +
                                      "&sequence=1&description=Vidora%20DLRC%20log%20(Uploaded%20by%20PLS)"
                                      "&filename=a%20b.log.gz&raw=true");
    EXPECT_TRUE(received[0].body == content);
    EXPECT_EQ(received[0].header("Content-Type"), "application/octet-stream");
    EXPECT_EQ(received[0].header("Content-Encoding"), "gzip");
    EXPECT_FALSE(exists(log));
    expectLine("<7>UploadBackend(uploadFileAtPath): Uploading file " + log.string());
    expectLine("<7>UploadBackend(uploadFileAtPath): sending to |" + uploads().uploadURL() +
               "|, Json output: {\"success\":true}");
    expectLine("<7>uploadFileWithURL: File upload successful for " + log.string());

    // A client's name for its file can't forge a record of the log.
    EXPECT_FALSE(session_->uploadFile("/none\n(2015-11-16 08:00:00 +0000) [forged] \x1b[31m"));
    const auto records = newestLogFile(MessageLog(directory().path() / "logs"));
    ASSERT_TRUE(records);
    EXPECT_THAT(readFile(*records),
                testing::EndsWith("[uploadFileWithURL] Upload failed for file "
                                  "/none%0A(2015-11-16 08:00:00 +0000) [forged] %1B[31m\n"));
}

TEST_F(Uploads, AreRegularFilesOfSomeSizeInTheDirectoriesOfUploads) {
    start({{"maxUploadBytes", 1000}});
    const path target = file("target");
    create_symlink(target, spool() / "link");
    create_directory_symlink(spool(), spool() / "loop");
    create_directory(spool() / "directory");
    ASSERT_EQ(mkfifo((spool() / "fifo").c_str(), 0666), 0);
    file("empty", "");
    outside("log");
    for (const path& refused : std::initializer_list<path>{
             spool() / "link", spool() / "loop" / "target", spool() / "directory", spool() / "fifo",
             spool() / "none", spool(), spool() / "directory/../target", spool() / "./target",
             spool().parent_path() / "outside/log", path(spool().string() + "-2/target"), path("/etc/passwd"),
             path("target"), path(""), path("/"), path("/dev/null")}) {
        expectRefused(refused);
    }
    expectRefused(spool() / "empty", "", kEmpty);
    EXPECT_TRUE(exists(spool() / "empty"));

    // A token gives access to other directories, but only to regular files that are not empty.
    for (const path& special :
         std::initializer_list<path>{"/dev/zero", "/", "/proc/self/fd", spool() / "fifo"}) {
        expectRefused(special, tokenFor(special));
    }
    for (const path& empty : {outside("empty", ""), path("/proc/self/status")})
        expectRefused(empty, tokenFor(empty), kEmpty);
    expectRefused(file("large", std::string(1001, 'x')), "",
                  "<3>UploadBackend(uploadFileAtPath): The file is larger than 1000 bytes");
    EXPECT_TRUE(session_->uploadFile(file("fits", std::string(1000, 'x'))));
    EXPECT_TRUE(session_->uploadFile(target));
}

TEST_F(Uploads, TakeATokenOnceAndForItsOwnConnectionAndPath) {
    start();
    // The daemon can neither open nor remove files outside of the directories of uploads.
    const path log = outside("log", "from outside"), other = outside("other");
    const auto neighbour = open();
    const auto foreign = neighbour->issueFileExtension(log, openForReading(log).get());
    ASSERT_TRUE(foreign);
    EXPECT_EQ(foreign->size(), 64U);

    expectRefused(log, *foreign);
    expectRefused(log, std::string(64, 'a'));
    expectRefused(log, foreign->substr(0, 63));
    const std::string token = tokenFor(log);
    expectRefused(other, token);
    // A token is used up by its first presentation, even for another path.
    expectRefused(log, token);

    const std::string once = tokenFor(log);
    EXPECT_NE(once, token);
    EXPECT_TRUE(session_->uploadFile(log, once));
    EXPECT_EQ(uploads().uploads().back().body, "from outside");
    EXPECT_TRUE(exists(log));
    expectLine("<4>UploadBackend(uploadFileAtPath): " + log.string() +
               " stays where it is: not in a directory of uploads");
    expectRefused(log, once);
    EXPECT_TRUE(neighbour->uploadFile(log, *foreign));

    // Only a client that can read a file gets a token.
    const auto refusal = [&](const std::string& name, int flags) {
        const UniqueFd descriptor(::open(log.c_str(), flags | O_CLOEXEC));
        return session_->issueFileExtension(name, descriptor.get()).error();
    };
    for (const int flags : {O_WRONLY, O_PATH, O_WRONLY | O_APPEND})
        EXPECT_EQ(refusal(log, flags), kInvalid + "The file is not open for reading");
    for (const std::string& name : {std::string(), std::string(5000, 'a')})
        EXPECT_EQ(refusal(name, O_RDONLY), kInvalid + "The path is empty or too long");
}

TEST_F(Uploads, HoldABoundedNumberOfTokensPerConnection) {
    start();
    const path log = outside("log");
    const UniqueFd descriptor = openForReading(log);
    // The number of the daemon's descriptors of the file.
    const auto held = [&] {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon().pid()) + "/fd");
        std::error_code gone;
        return std::count_if(begin(all), end(all),
                             [&](const auto& entry) { return read_symlink(entry.path(), gone) == log; });
    };
    // No answer marks that the daemon has closed a descriptor: the test asks repeatedly.
    const auto expectHeld = [&](int count) {
        for (int answers = 0; held() != count && answers < 100'000; ++answers)
            session_->fetchStates();
        EXPECT_EQ(held(), count);
    };
    std::string last;
    for (int i = 0; i < 1000; ++i) {
        const auto token = session_->issueFileExtension(log, descriptor.get());
        ASSERT_EQ(token.has_value(), i < 64);
        if (i < 64) last = *token;
        ASSERT_TRUE(i < 64 || token.error() == kInvalid + "Too many extensions are unused");
    }
    expectHeld(64);
    // A used token makes room for one more. Other clients are not affected. The session's end closes all.
    EXPECT_TRUE(session_->uploadFile(log, last));
    EXPECT_TRUE(session_->issueFileExtension(log, descriptor.get()));
    EXPECT_TRUE(open()->issueFileExtension(log, descriptor.get()));
    session_ = open();
    expectHeld(0);
}

TEST_F(Uploads, LargeOrHangingHoldUpNobodyElse) {
    start({{"shutdownMilliseconds", 100}});
    // More bytes than the limit of all pending requests wait; reports are still posted.
    const std::string content = noise(size_t{65} << 20);
    uploads().setAnswer(UploadAnswer::hold);
    const auto uploaded = session_->beginUploadFile(file("large", content));
    ASSERT_TRUE(uploads().waitForUploads(1, kPatience));
    expectReport(*open());
    uploads().releaseHeld();
    EXPECT_TRUE(uploaded());
    EXPECT_TRUE(uploads().uploads().front().body == content);
    EXPECT_FALSE(exists(spool() / "large"));

    std::vector<Session> hanging;
    for (int i = 0; i < 3; ++i) {
        hanging.push_back(open());
        hanging.back()->beginUploadFile(file("hanging" + std::to_string(i)));
        ASSERT_TRUE(uploads().waitForUploads(1 + hanging.size(), kPatience));
    }
    expectReport(*session_);
    uploads().setAnswer(UploadAnswer::success);
    EXPECT_TRUE(session_->uploadFile(file("quick")));
    EXPECT_TRUE(open());
    // The daemon's end does not wait for the server either.
    stopDaemon();
    EXPECT_TRUE(exists(spool() / "hanging0"));
}

}  // namespace
}  // namespace telvora::test
