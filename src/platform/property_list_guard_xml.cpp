// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cstdint>

#include "platform/property_list_format.h"
#include "platform/property_list_guard.h"

namespace telvora {

namespace {

// The bytes that libplist may move to unescape the entities of a document: about a second's work.
constexpr uint64_t kMaxEntityWork = uint64_t{1} << 32;

// Walks over the tags of a document. Where a form is rare in property lists and libplist's idea of its end is
// its own (quotes inside tags, an internal subset), the document is refused rather than guessed at.
class XmlScanner {
  public:
    explicit XmlScanner(std::string_view document) : rest_(document) {}

    tl::expected<void, std::string> scan() {
        while (skipText()) {
            const char* error = rest_.starts_with("<!--")        ? skipPast(4, "-->", false)
                                : rest_.starts_with("<![CDATA[") ? skipPast(9, "]]>", false)
                                : rest_.starts_with("<?")        ? skipPast(2, "?>", true)
                                : rest_.starts_with("<!")        ? skipDeclaration()
                                                                 : takeTag();
            if (error != nullptr) return tl::make_unexpected(error);
        }
        if (entityWork_ > kMaxEntityWork) return tl::make_unexpected("too many entities");
        if (values_ == 0) return tl::make_unexpected("not a property list");
        return {};
    }

  private:
    // Goes to the next '<'; false when there is none.
    bool skipText() {
        const size_t length = std::min(rest_.find('<'), rest_.size());
        const std::string_view text = rest_.substr(0, length);
        entityWork_ += static_cast<uint64_t>(std::count(text.begin(), text.end(), '&')) * length;
        rest_.remove_prefix(length);
        return !rest_.empty();
    }

    // Goes past the first `end` after `start` bytes. With `plainQuotes`, an end inside quotes is refused.
    const char* skipPast(size_t start, std::string_view end, bool plainQuotes) {
        const size_t at = rest_.find(end, start);
        if (at == std::string_view::npos) return "unterminated markup";
        if (plainQuotes &&
            std::count(rest_.begin(), rest_.begin() + static_cast<ptrdiff_t>(at), '"') % 2 != 0) {
            return "malformed markup";
        }
        rest_.remove_prefix(at + end.size());
        return nullptr;
    }

    const char* skipDeclaration() {
        if (rest_.substr(0, rest_.find('>')).find('[') != std::string_view::npos) {
            return "a document type with an internal subset";
        }
        return skipPast(2, ">", true);
    }

    const char* takeTag() {
        std::string_view tag = rest_.substr(1, rest_.find('>') - 1);
        if (tag.starts_with("plist")) return skipPast(1, ">", true);
        const bool closing = tag.starts_with('/');
        const bool empty = tag.ends_with('/');
        if (closing) tag.remove_prefix(1);
        if (empty && !tag.empty()) tag.remove_suffix(1);
        while (!tag.empty() && std::string_view(" \t\r\n").find(tag.back()) != std::string_view::npos)
            tag.remove_suffix(1);
        const bool name = std::all_of(tag.begin(), tag.end(), [](char c) { return c >= 'a' && c <= 'z'; });
        if (tag.empty() || !name || (closing && empty)) return "malformed tag";

        const bool container = tag == "array" || tag == "dict";
        if (closing) {
            if (container && depth_ > 0) --depth_;
            return skipPast(1, ">", false);
        }
        if (++values_ > kMaxPropertyListValues) return "too many values";
        if (tag == "key" &&
            (++entries_[depth_] > kMaxXmlDictionaryEntries || ++allEntries_ > kMaxXmlEntries)) {
            return "too many entries";
        }
        if (container && !empty) {
            if (++depth_ > kMaxPropertyListDepth) return "nested too deeply";
            entries_[depth_] = 0;
        }
        return skipPast(1, ">", false);
    }

    std::string_view rest_;
    size_t depth_ = 0;
    size_t values_ = 0;  // keys among them
    std::array<size_t, kMaxPropertyListDepth + 1>
        entries_{};  // by depth, of the container that is open there
    size_t allEntries_ = 0;
    uint64_t entityWork_ = 0;
};

}  // namespace

tl::expected<void, std::string> checkXmlPropertyList(std::string_view document) {
    return XmlScanner(document).scan();
}

}  // namespace telvora
