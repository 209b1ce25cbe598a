// SPDX-License-Identifier: Apache-2.0
//
// Published bags and their history: .history/NAME/ beside the published NAME has the earlier documents, each
// named by the date under which it was published, and those that were rolled back, as DATE.withdrawn.
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <vector>

#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "util/atomic_file.h"
#include "util/error_text.h"

namespace telvora::bag {

namespace {

namespace fs = std::filesystem;

constexpr size_t kMostEarlierDocuments = 20;
constexpr char kWithdrawn[] = ".withdrawn";

class PublishedFile {
  public:
    explicit PublishedFile(const std::string& path)
        : path_(path), history_(path_.parent_path() / ".history" / path_.filename()) {}

    // Publishes a document. The present one goes to the history, with that ending of its name. The date moves
    // forward by a second at least: HTTP dates have no fractions, and a server that compares dates would tell
    // devices that their copy of a bad bag is current.
    tl::expected<void, std::string> replace(std::string_view document, const char* ending) {
        timespec modified{};
        clock_gettime(CLOCK_REALTIME, &modified);
        modified.tv_nsec = 0;
        struct stat present {};
        if (stat(path_.c_str(), &present) == 0) {
            modified.tv_sec = std::max(modified.tv_sec, present.st_mtim.tv_sec + 1);
            if (auto kept = keep(present.st_mtim.tv_sec, ending); !kept) return kept;
        }
        return replaceFile(path_, document, {.mode = 0644, .modified = modified})
            .map_error([this](auto reason) { return path_.string() + ": " + reason; });
    }
    // The earlier documents, the oldest first.
    std::vector<fs::path> earlier() const {
        std::vector<fs::path> files;
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(history_, error)) {
            if (entry.is_regular_file(error) && entry.path().extension() != kWithdrawn)
                files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

  private:
    tl::expected<void, std::string> keep(time_t published, const char* ending) {
        const auto present = readFile(path_);
        if (!present) return tl::unexpected(present.error());
        std::error_code error;
        fs::create_directories(history_, error);
        if (error) return tl::unexpected(history_.string() + ": " + error.message());
        char name[32];
        tm date{};
        strftime(name, sizeof name, "%Y%m%dT%H%M%SZ", gmtime_r(&published, &date));
        const fs::path kept = history_ / (std::string(name) + ending);
        if (auto written = replaceFile(kept, *present, {.mode = 0644}); !written)
            return tl::unexpected(kept.string() + ": " + written.error());
        const std::vector<fs::path> files = earlier();
        for (size_t i = 0; i + kMostEarlierDocuments < files.size(); ++i)
            fs::remove(files[i], error);
        return {};
    }

    const fs::path path_;
    const fs::path history_;
};

}  // namespace

int publish(const std::string& privateKeyFile, const std::string& bagFile, const std::string& publishedFile,
            bool lints) {
    if (std::filesystem::path(publishedFile).filename().empty() || publishedFile == "-")
        return complain(publishedFile + ": is no name of a file");
    return sign(privateKeyFile, bagFile, publishedFile, lints,
                [](const std::string& path, std::string_view document) {
                    return PublishedFile(path).replace(document, "");
                });
}

int rollback(const std::string& publishedFile) {
    PublishedFile published(publishedFile);
    const std::vector<fs::path> earlier = published.earlier();
    if (earlier.empty()) return complain(publishedFile + ": there is no earlier document");
    const auto document = readFile(earlier.back());
    if (!document) return complain(document.error());
    if (auto replaced = published.replace(*document, kWithdrawn); !replaced)
        return complain(replaced.error());
    std::error_code error;
    fs::remove(earlier.back(), error);
    if (error) return complain(earlier.back().string() + ": " + error.message());
    std::cout << publishedFile << ": the document of " << earlier.back().filename().string() << '\n';
    return kDone;
}

}  // namespace telvora::bag
