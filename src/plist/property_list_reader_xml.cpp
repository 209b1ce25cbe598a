// SPDX-License-Identifier: Apache-2.0
#include <expat.h>

#include <charconv>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "plist/property_list_format.h"
#include "plist/property_list_limits.h"
#include "plist/property_list_reader.h"
#include "util/ascii.h"
#include "util/base64.h"

namespace telvora {

namespace {

constexpr const char* kMalformed = "malformed property list";

// Version 2.9 deprecates the older function.
uint64_t currentLine(XML_Parser parser) {
#if XML_MAJOR_VERSION * 100 + XML_MINOR_VERSION >= 209
    return XML_GetCurrentLineNumber64(parser);
#else
    return XML_GetCurrentLineNumber(parser);
#endif
}

// Whether the whole text is a number.
template <typename Number, typename... Format>
bool parseNumber(std::string_view text, Number& number, Format... format) {
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number, format...);
    return error == std::errc() && parsed == end && !text.empty();
}

// Decimal, or hexadecimal after "0x".
std::optional<PropertyList> integerFrom(std::string_view text) {
    text = trimmed(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint64_t magnitude = 0;
    if (!parseNumber(text, magnitude, hexadecimal ? 16 : 10)) return std::nullopt;
    if (!negative) return PropertyList(magnitude);
    if (magnitude > uint64_t{1} << 63) return std::nullopt;
    return PropertyList(static_cast<int64_t>(0 - magnitude));
}

std::optional<PropertyList> realFrom(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    double real = 0;
    if (!parseNumber(text, real)) return std::nullopt;
    return PropertyList(real);
}

// "2015-11-16T08:00:00Z".
std::optional<PropertyList> dateFrom(std::string_view text) {
    using namespace std::chrono;
    text = trimmed(text);
    constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
    if (text.size() != kShape.size()) return std::nullopt;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == '0' ? !digit : text[i] != kShape[i]) return std::nullopt;
    }
    const auto number = [&text](size_t at, size_t digits) {
        int value = 0;
        parseNumber(text.substr(at, digits), value);
        return value;
    };
    const year_month_day day(year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                             std::chrono::day(static_cast<unsigned>(number(8, 2))));
    const int hours = number(11, 2), minutes = number(14, 2), seconds = number(17, 2);
    if (!day.ok() || hours > 23 || minutes > 59 || seconds > 60) return std::nullopt;
    const auto days = static_cast<double>(sys_days(day).time_since_epoch().count());
    const double since1970 = days * 86400 + hours * 3600 + minutes * 60 + seconds;
    return isDate(since1970) ? std::optional(PropertyList(Date{since1970})) : std::nullopt;
}

std::optional<PropertyList> dataFrom(std::string_view text) {
    std::optional<std::string> bytes = base64Decode(text);
    if (!bytes) return std::nullopt;
    return PropertyList(Data{std::move(*bytes)});
}

enum class Element { plist, array, dictionary, key, string, integer, real, date, data, yes, no };

std::optional<Element> elementNamed(std::string_view name) {
    constexpr std::pair<std::string_view, Element> kNames[] = {
        {"key", Element::key},     {"string", Element::string}, {"integer", Element::integer},
        {"true", Element::yes},    {"false", Element::no},      {"dict", Element::dictionary},
        {"array", Element::array}, {"real", Element::real},     {"date", Element::date},
        {"data", Element::data},   {"plist", Element::plist}};
    for (const auto& [known, element] : kNames) {
        if (known == name) return element;
    }
    return std::nullopt;
}

// Releases excess capacity if it is large.
template <typename Element>
void trim(std::vector<Element>& elements) {
    if (elements.capacity() > elements.size() + elements.size() / 4) elements.shrink_to_fit();
}

class XmlReader {
  public:
    XmlReader() : parser_(XML_ParserCreate(nullptr)) {
        if (parser_ == nullptr) return;
        XML_SetUserData(parser_.get(), this);
        XML_SetElementHandler(parser_.get(), &XmlReader::onStart, &XmlReader::onEnd);
        XML_SetCharacterDataHandler(parser_.get(), &XmlReader::onText);
        XML_SetStartDoctypeDeclHandler(parser_.get(), &XmlReader::onDoctype);
        XML_SetSkippedEntityHandler(parser_.get(), &XmlReader::onSkippedEntity);
    }

    tl::expected<PropertyList, std::string> read(std::string_view document) {
        if (parser_ == nullptr) return tl::make_unexpected("no memory");
        const XML_Status status =
            XML_Parse(parser_.get(), document.data(), static_cast<int>(document.size()), 1);
        if (error_ != nullptr) return tl::make_unexpected(error_);
        if (!begun_) return tl::make_unexpected("not a property list");
        if (status != XML_STATUS_OK) {
            return tl::make_unexpected(std::string(kMalformed) + ": " +
                                       XML_ErrorString(XML_GetErrorCode(parser_.get())) + " in line " +
                                       std::to_string(currentLine(parser_.get())));
        }
        if (!top_) return tl::make_unexpected(kMalformed);
        return std::move(*top_);
    }

  private:
    struct Free {
        void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
    };
    // An open element. Only the members for its kind are used.
    struct Open {
        Element element;
        Array array = {};
        std::vector<Dictionary::Entry> entries = {};
        std::optional<std::string> key = {};  // of the entry whose value follows
    };

    static XmlReader& of(void* self) { return *static_cast<XmlReader*>(self); }
    static void onStart(void* self, const char* name, const char**) { of(self).run(&XmlReader::start, name); }
    static void onEnd(void* self, const char*) { of(self).run(&XmlReader::end); }
    static void onText(void* self, const char* text, int length) {
        of(self).run(&XmlReader::text, std::string_view(text, static_cast<size_t>(length)));
    }
    static void onDoctype(void* self, const char*, const char*, const char*, int hasInternalSubset) {
        if (hasInternalSubset != 0) of(self).fail("a document type with an internal subset");
    }
    static void onSkippedEntity(void* self, const char*, int) { of(self).fail("an unknown entity"); }

    // The parser may call once more after it was stopped, and no exception may pass through it.
    template <typename... Arguments>
    void run(void (XmlReader::*handle)(Arguments...), std::type_identity_t<Arguments>... arguments) noexcept
        try {
        if (error_ == nullptr) (this->*handle)(arguments...);
    } catch (const std::bad_alloc&) {
        fail("no memory");
    }

    void fail(const char* reason) {
        error_ = reason;
        XML_StopParser(parser_.get(), XML_FALSE);
    }

    bool isIn(Element element) const { return !open_.empty() && open_.back().element == element; }

    void start(const char* name) {
        begun_ = true;
        const auto element = elementNamed(name);
        if (!element) return fail("an element of unknown type");
        const bool isOutside = open_.empty() && !top_;
        if (*element == Element::plist) {
            if (!isOutside) return fail(kMalformed);
        } else {
            const bool fits = *element == Element::key ? isIn(Element::dictionary) && !open_.back().key
                              : isIn(Element::dictionary)
                                  ? open_.back().key.has_value()
                                  : isIn(Element::array) || (!top_ && (isOutside || isIn(Element::plist)));
            if (!fits) return fail(kMalformed);
            if (++values_ > kMaxDocumentValues) return fail(kWhyTooMany);
        }
        if (*element == Element::array || *element == Element::dictionary) {
            if (++depth_ > kMaxDocumentDepth) return fail(kWhyTooDeep);
        }
        text_.clear();
        open_.push_back({*element});
    }

    // Only blanks are allowed between elements.
    void text(std::string_view part) {
        const bool holdsText = !open_.empty() && open_.back().element >= Element::key;
        if (holdsText) {
            text_ += part;
        } else if (!trimmed(part).empty()) {
            fail(kMalformed);
        }
    }

    void end() {
        Open closed = std::move(open_.back());
        open_.pop_back();
        if (closed.element == Element::plist) return;
        if (closed.element == Element::key) {
            open_.back().key = std::move(text_);
            return;
        }
        std::optional<PropertyList> value = valueOf(closed);
        if (!value) return;
        if (open_.empty() || open_.back().element == Element::plist) {
            top_ = std::move(value);
        } else if (open_.back().element == Element::array) {
            open_.back().array.push_back(std::move(*value));
        } else {
            Open& dictionary = open_.back();
            dictionary.entries.push_back({std::move(*dictionary.key), std::move(*value)});
            dictionary.key.reset();
        }
    }

    // std::nullopt, after fail(), if the text is not of that kind.
    std::optional<PropertyList> valueOf(Open& closed) {
        std::optional<PropertyList> value;
        const char* reason = kMalformed;
        switch (closed.element) {
            case Element::array:
                --depth_;
                trim(closed.array);
                return PropertyList(std::move(closed.array));
            case Element::dictionary:
                --depth_;
                if (closed.key) break;
                trim(closed.entries);
                return PropertyList(Dictionary::fromEntries(std::move(closed.entries)));
            case Element::string:
                return PropertyList(std::move(text_));
            case Element::yes:
            case Element::no:
                if (trimmed(text_).empty()) value = PropertyList(closed.element == Element::yes);
                break;
            case Element::integer:
                value = integerFrom(text_);
                reason = "no integer, or one out of range";
                break;
            case Element::real:
                value = realFrom(text_);
                reason = "no real";
                break;
            case Element::date:
                value = dateFrom(text_);
                reason = "no date of the years 1 to 9999";
                break;
            case Element::data:
                value = dataFrom(text_);
                reason = "data that are no base64";
                break;
            case Element::plist:
            case Element::key:
                break;
        }
        if (!value) fail(reason);
        return value;
    }

    std::unique_ptr<std::remove_pointer_t<XML_Parser>, Free> parser_;
    std::vector<Open> open_;  // the open elements, outermost first
    std::string text_;        // of the innermost element
    size_t depth_ = 0;        // open arrays and dictionaries
    size_t values_ = 0;       // keys included
    bool begun_ = false;
    std::optional<PropertyList> top_;
    const char* error_ = nullptr;
};

}  // namespace

tl::expected<PropertyList, std::string> readXmlPropertyList(std::string_view document) {
    return XmlReader().read(document);
}

}  // namespace telvora
