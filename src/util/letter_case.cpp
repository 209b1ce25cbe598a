// SPDX-License-Identifier: Apache-2.0
#include "util/letter_case.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <climits>
#include <cwchar>

#include "util/ascii.h"

namespace telvora {

namespace {

bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

// Makes C.UTF-8 the calling thread's locale for a scope.
class Utf8Locale {
  public:
    Utf8Locale() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (locale_ != nullptr) before_ = uselocale(locale_);
    }
    ~Utf8Locale() {
        if (locale_ == nullptr) return;
        uselocale(before_);
        freelocale(locale_);
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

    bool available() const { return locale_ != nullptr; }

  private:
    locale_t locale_;
    locale_t before_ = nullptr;
};

std::string lowerCaseUtf8(std::string_view text) {
    std::string lower;
    lower.reserve(text.size());
    while (!text.empty()) {
        std::mbstate_t state{};
        wchar_t letter = 0;
        const size_t length = std::mbrtowc(&letter, text.data(), text.size(), &state);
        char encoded[MB_LEN_MAX];
        state = {};
        const bool decoded = length > 0 && length <= text.size();
        const size_t written =
            decoded
                ? std::wcrtomb(encoded, static_cast<wchar_t>(towlower(static_cast<wint_t>(letter))), &state)
                : size_t(-1);
        const size_t consumed = decoded ? length : 1;
        if (written <= sizeof encoded) {
            lower.append(encoded, written);
        } else {
            lower.append(text.substr(0, consumed));
        }
        text.remove_prefix(consumed);
    }
    return lower;
}

}  // namespace

std::string lowerCase(std::string_view text) {
    if (!std::all_of(text.begin(), text.end(), isAscii)) {
        const Utf8Locale utf8;
        if (utf8.available()) return lowerCaseUtf8(text);
    }
    return asciiLowerCase(text);
}

}  // namespace telvora
