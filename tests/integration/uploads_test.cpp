// SPDX-License-Identifier: Apache-2.0
//
// Files on their way from a client to the upload server, through the real daemon in its sandbox: what
// arrives, what vanishes, and above all what doesn't.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstring>

#include "telvora-lab/bags.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::DaemonOptions;
using lab::kPatience;
using lab::openBag;
using lab::readFile;
using lab::UploadAnswer;
using std::filesystem::path;
using testing::ElementsAre;
using testing::Optional;

constexpr char kUdid[] = "0123456789abcdef0123456789abcdef01234567";
constexpr char kRegularFilesOnly[] = "<3>UploadBackend(uploadFileAtPath): Only upload a regular file.";
constexpr char kEmpty[] = "<3>UploadBackend(uploadFileAtPath): Input file is empty";

UniqueFd openForReading(const path& file) {
    return UniqueFd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

class Uploads : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        // The test's folder is the client's own and no secret; the daemon goes where the client may go.
        std::filesystem::create_directories(spool());
        setUploadURL("@upload@");
    }
    void setUploadURL(const std::string& url) {
        Dictionary bag = openBag();
        Dictionary section = *bag.dictionary("release");
        section.set("uploadServer", Dictionary{{"post_url", url}, {"display_url", "https://show.example"}});
        bag.set("release", std::move(section));
        laboratory().setBag("dravik", bag);
    }
    void start(Dictionary defaults = {}) {
        defaults.set("uploadDirectories", Array{spool().string(), "relative", 7});
        startDaemon([&](DaemonOptions& options) { options.defaults = defaults; });
        session_ = open();
    }
    std::unique_ptr<BlockingSession> open() {
        auto session = std::make_unique<BlockingSession>(daemon().socketPath());
        EXPECT_THAT(session->startConfig(), Optional(ElementsAre("httpPost", "uploadServer")));
        return session;
    }

    // The directory of uploads, and one that is none.
    path spool() const { return directory().path() / "spool"; }
    path file(const std::string& name, std::string_view content = "content") const {
        return directory().write("spool/" + name, content);
    }
    path outside(const std::string& name, std::string_view content = "content") const {
        return directory().write("outside/" + name, content);
    }

    // A token for the file, which exists.
    std::string tokenFor(const path& file, const path& name = {}) {
        const auto token =
            session_->issueFileExtension(name.empty() ? file : name, openForReading(file).get());
        EXPECT_TRUE(token) << token.error();
        return token.value_or("");
    }
    // That the upload is refused with this line and nothing reaches the server.
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

    std::unique_ptr<BlockingSession> session_;
};

TEST_F(Uploads, ArriveByteForByteAndVanish) {
    start();
    std::string content;
    for (int i = 0; i < 300'000; ++i)
        content.push_back(static_cast<char>((i * 2654435761U) >> 13));
    const path log = file("a b.log", content);
    EXPECT_TRUE(session_->uploadFile("file://" + spool().string() + "/a%20b.log", tokenFor(log)));

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
}

TEST_F(Uploads, WithoutATokenAreRegularFilesInTheDirectoriesOfUploads) {
    start();
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
    if (mknod((spool() / "device").c_str(), S_IFCHR | 0666, makedev(1, 5)) == 0) {
        expectRefused(spool() / "device");
    }
    expectRefused(spool() / "empty", "", kEmpty);
    EXPECT_TRUE(exists(spool() / "empty"));
    EXPECT_TRUE(session_->uploadFile(target));
}

TEST_F(Uploads, WithATokenAreReadFromTheDescriptor) {
    start();
    // Outside of the directories of uploads the daemon can neither open nor remove anything.
    const path log = outside("log", "from outside");
    EXPECT_TRUE(session_->uploadFile(log, tokenFor(log)));
    EXPECT_EQ(uploads().uploads().back().body, "from outside");
    EXPECT_TRUE(exists(log));
    expectLine("<4>UploadBackend(uploadFileAtPath): " + log.string() +
               " stays where it is: not in a directory of uploads");

    // Another file has taken the name, or the name is gone.
    const path replaced = file("replaced", "what the client opened");
    std::string token = tokenFor(replaced);
    rename(file("other", "what lies there now"), replaced);
    EXPECT_TRUE(session_->uploadFile(replaced, token));
    EXPECT_EQ(uploads().uploads().back().body, "what the client opened");
    EXPECT_EQ(readFile(replaced), "what lies there now");

    const path linked = file("linked", "behind a link");
    token = tokenFor(linked);
    rename(linked, spool() / "moved");
    create_symlink(spool() / "moved", linked);
    EXPECT_TRUE(session_->uploadFile(linked, token));
    EXPECT_TRUE(is_symlink(linked));
    EXPECT_TRUE(exists(spool() / "moved"));

    // It has grown since.
    const path grown = file("grown", "begin");
    token = tokenFor(grown);
    std::ofstream(grown, std::ios::app) << " and more";
    EXPECT_TRUE(session_->uploadFile(grown, token));
    EXPECT_EQ(uploads().uploads().back().body, "begin and more");
}

TEST_F(Uploads, WithATokenAreStillRegularFiles) {
    start();
    for (const char* special : {"/dev/zero", "/", "/proc/self/fd"}) {
        expectRefused(special, tokenFor(special));
    }
    const path fifo = spool() / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
    expectRefused(fifo, tokenFor(fifo));
    const path empty = outside("empty", "");
    expectRefused(empty, tokenFor(empty), kEmpty);
    expectRefused("/proc/self/status", tokenFor("/proc/self/status"), kEmpty);
}

TEST_F(Uploads, TakeATokenOnceAndForItsOwnConnectionAndPath) {
    start();
    const path log = outside("log");
    const path other = outside("other");
    const auto neighbour = open();
    const auto foreign = neighbour->issueFileExtension(log, openForReading(log).get());
    ASSERT_TRUE(foreign);
    EXPECT_EQ(foreign->size(), 64U);

    expectRefused(log, *foreign);
    expectRefused(log, std::string(64, 'a'));
    expectRefused(log, foreign->substr(0, 63));
    const std::string token = tokenFor(log);
    expectRefused(other, token);
    // Whoever presented it for another path has used it up.
    expectRefused(log, token);

    const std::string once = tokenFor(log);
    EXPECT_NE(once, token);
    EXPECT_TRUE(session_->uploadFile(log, once));
    expectRefused(log, once);
    EXPECT_TRUE(neighbour->uploadFile(log, *foreign));
}

TEST_F(Uploads, GiveTokensForReadableDescriptorsAlone) {
    start();
    const path log = file("log");
    for (const int flags : {O_WRONLY, O_PATH, O_WRONLY | O_APPEND}) {
        const UniqueFd descriptor(::open(log.c_str(), flags | O_CLOEXEC));
        EXPECT_EQ(session_->issueFileExtension(log, descriptor.get()).error(),
                  "The file is not open for reading");
    }
    const UniqueFd descriptor = openForReading(log);
    for (const std::string& name : {std::string(), std::string(5000, 'a')}) {
        EXPECT_EQ(session_->issueFileExtension(name, descriptor.get()).error(),
                  "The path is empty or too long");
    }
}

TEST_F(Uploads, HoldABoundedNumberOfTokensPerConnection) {
    start();
    const path log = outside("log");
    const UniqueFd descriptor = openForReading(log);
    // How many descriptors of the file the daemon has.
    const auto held = [&] {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon().pid()) + "/fd");
        std::error_code gone;
        return std::count_if(begin(all), end(all),
                             [&](const auto& entry) { return read_symlink(entry.path(), gone) == log; });
    };
    std::string last;
    size_t issued = 0;
    for (int i = 0; i < 10'000; ++i) {
        const auto token = session_->issueFileExtension(log, descriptor.get());
        if (token) {
            last = *token;
            ++issued;
        } else {
            ASSERT_EQ(token.error(), "Too many extensions are unused");
        }
    }
    EXPECT_EQ(issued, 64U);
    session_->fetchStates();  // by its answer the last refused descriptor has been closed
    EXPECT_EQ(held(), 64);
    // One used makes room for one more; nobody else is concerned; the end closes all.
    EXPECT_TRUE(session_->uploadFile(log, last));
    EXPECT_TRUE(session_->issueFileExtension(log, descriptor.get()));
    EXPECT_TRUE(open()->issueFileExtension(log, descriptor.get()));
    session_ = open();
    // No answer tells of another connection's end: asks until it was.
    for (int answers = 0; held() != 0 && answers < 100'000; ++answers)
        session_->fetchStates();
    EXPECT_EQ(held(), 0);
}

TEST_F(Uploads, HaveALimitOfSize) {
    start({{"maxUploadBytes", 1000}});
    constexpr char kTooLarge[] = "<3>UploadBackend(uploadFileAtPath): The file is larger than 1000 bytes";
    expectRefused(file("large", std::string(1001, 'x')), "", kTooLarge);
    EXPECT_TRUE(session_->uploadFile(file("fits", std::string(1000, 'x'))));
}

TEST_F(Uploads, ThatHangHoldUpNobodyElse) {
    start({{"shutdownMilliseconds", 100}});
    uploads().setAnswer(UploadAnswer::hold);
    std::vector<std::unique_ptr<BlockingSession>> hanging;
    for (int i = 0; i < 3; ++i) {
        hanging.push_back(open());
        hanging.back()->beginUploadFile(file("hanging" + std::to_string(i)));
        ASSERT_TRUE(uploads().waitForUploads(hanging.size(), kPatience));
    }
    session_->send(4, 1, {{"a", 1}});
    EXPECT_EQ(session_->flush().second, std::nullopt);
    uploads().setAnswer(UploadAnswer::success);
    EXPECT_TRUE(session_->uploadFile(file("quick")));
    EXPECT_TRUE(open());
    // The end of the daemon doesn't wait for the server either.
    stopDaemon();
    EXPECT_TRUE(exists(spool() / "hanging0"));
}

TEST_F(Uploads, OfHundredsOfMegabytesTakeTheirOwnRoom) {
    start();
    std::string content(size_t{100} << 20, '\0');
    uint64_t state = 88172645463325252ULL;
    for (size_t i = 0; i + 8 <= content.size(); i += 8) {
        state ^= state << 13, state ^= state >> 7, state ^= state << 17;
        std::memcpy(&content[i], &state, 8);
    }
    uploads().setAnswer(UploadAnswer::hold);
    const auto uploaded = session_->beginUploadFile(file("large", content));
    ASSERT_TRUE(uploads().waitForUploads(1, kPatience));
    // More than all pending requests may take is pending now, and reports still go.
    const auto neighbour = open();
    neighbour->send(4, 1, {{"a", 1}});
    EXPECT_EQ(neighbour->flush().second, std::nullopt);
    uploads().releaseHeld();
    EXPECT_TRUE(uploaded());
    EXPECT_TRUE(uploads().uploads().front().body == content);
    EXPECT_FALSE(exists(spool() / "large"));
}

}  // namespace
}  // namespace telvora::test
