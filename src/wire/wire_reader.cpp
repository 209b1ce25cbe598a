// SPDX-License-Identifier: Apache-2.0
#include "wire/wire_reader.h"

#include "util/utf8.h"
#include "wire/dbus_names.h"

namespace telvora {

namespace {

constexpr uint64_t kEachByte = 0x0101010101010101;

// Whether eight characters are ASCII and not NUL. A borrow may reject a valid one, which costs the slow
// check.
constexpr bool isPlainAscii(uint64_t eight) {
    return ((eight | (eight - kEachByte)) & (kEachByte * 0x80)) == 0;
}

// UTF-8 without NUL.
bool isText(std::string_view text) {
    size_t at = 0;
    for (; at + sizeof(uint64_t) <= text.size(); at += sizeof(uint64_t)) {
        uint64_t eight;
        std::memcpy(&eight, text.data() + at, sizeof eight);
        if (!isPlainAscii(eight)) break;
    }
    text.remove_prefix(at);
    return text.find('\0') == std::string_view::npos && isValidUtf8(text);
}

}  // namespace

bool WireReader::read(bool& value) {
    uint32_t number = 0;
    if (type() != 'b' || !readFixed(number)) return false;
    if (number > 1) return fail("a boolean is neither 0 nor 1");
    value = number != 0;
    return consumed();
}

bool WireReader::read(std::string_view& text) {
    const char kind = type();
    if (kind == 'g') return readSignature(text) && consumed();
    return (kind == 's' || kind == 'o') && readText(kind, text) && consumed();
}

bool WireReader::readText(char kind, std::string_view& text) {
    uint32_t length = 0;
    if (!readFixed(length)) return false;
    const size_t start = position_;
    if (!advance(size_t{length} + 1)) return false;
    text = {bytes_ + start, length};
    if (bytes_[start + length] != 0) return fail("a text does not end with NUL");
    if (kind == 'o') return isObjectPath(text) || fail("an object path is invalid");
    return isText(text) || fail("a text is not UTF-8");
}

bool WireReader::readSignature(std::string_view& signature) {
    uint8_t length = 0;
    if (!readFixed(length)) return false;
    const size_t start = position_;
    if (!advance(size_t{length} + 1)) return false;
    signature = {bytes_ + start, length};
    if (bytes_[start + length] != 0) return fail("a signature does not end with NUL");
    if (length == 1 && (isBasicType(signature.front()) || signature.front() == 'v')) return true;
    return isSignature(signature) || fail("a signature is invalid");
}

bool WireReader::readBytes(std::string_view& bytes) {
    if (types().substr(0, 2) != "ay") return false;
    if (!enter()) return false;
    bytes = {bytes_ + position_, frames_[depth_].end - position_};
    position_ = frames_[depth_].end;
    return leave();
}

bool WireReader::readDescriptor(uint32_t& index) {
    return type() == 'h' && readFixed(index) && consumed() && index < descriptors_;
}

bool WireReader::push(std::string_view types, size_t end, bool isArray) {
    if (depth_ == kMaxContainerDepth) return fail("containers are nested too deeply");
    frames_[++depth_] = {types.data(), types.data(), types.data() + types.size(), end, isArray ? 1U : 0U};
    return true;
}

bool WireReader::enter() {
    const std::string_view rest = types();
    const size_t end = frames_[depth_].end;
    // An array has one complete type.
    const auto typeLength = [&] {
        return frames_[depth_].isArray() ? rest.size() : completeTypeLength(rest);
    };
    switch (type()) {
        case 'a':
            return enterArray(rest.substr(1, typeLength() - 1));
        case '(':
        case '{':
            return align(8) && push(rest.substr(1, typeLength() - 2), end, false);
        case 'v': {
            std::string_view content;
            if (!readSignature(content)) return false;
            if (content.empty() || (content.size() > 1 && completeTypeLength(content) != content.size()))
                return fail("a variant's signature is not one complete type");
            return push(content, end, false);
        }
        default:
            return false;
    }
}

bool WireReader::enterArray(std::string_view element) {
    uint32_t length = 0;
    if (!readFixed(length)) return false;
    if (length > kMaxArrayLength) return fail("an array is too long");
    if (!align(alignmentOf(element.front()))) return false;
    if (frames_[depth_].end - position_ < length) return fail("an array ends beyond its container");
    return push(element, position_ + length, true);
}

bool WireReader::leave() {
    if (depth_ == 0) return false;
    while (!atEnd()) {
        if (!skip()) return false;
    }
    if (violation_ != nullptr) return false;
    const Frame& left = frames_[depth_--];
    const auto contents = static_cast<size_t>(left.typesEnd - left.typesBegin);
    switch (*frames_[depth_].type) {
        case 'v':  // whose contents have a signature of their own
            return consumed();
        case 'a':
            return consumed(1 + contents);
        default:  // in parentheses or braces
            return consumed(2 + contents);
    }
}

// An array of numbers of which every value is valid needs no look at each.
bool WireReader::skipFixedElements() {
    const Frame& frame = frames_[depth_];
    const size_t size = alignmentOf(*frame.type);
    if ((frame.end - position_) % size != 0) return fail("a value ends beyond its container");
    position_ = frame.end;
    return true;
}

bool WireReader::skip() {
    std::string_view text;
    bool boolean = false;
    switch (const char kind = type()) {
        case 0:
            return false;
        case 's':
        case 'o':
        case 'g':
            return read(text);
        case 'b':
            return read(boolean);
        case 'a':
        case '(':
        case '{':
        case 'v':
            return enter() && leave();
        default:
            if (frames_[depth_].isArray()) return skipFixedElements();
            return align(alignmentOf(kind)) && advance(alignmentOf(kind)) && consumed();
    }
}

bool WireReader::finish() {
    while (depth_ > 0) {
        if (!leave()) return false;
    }
    while (!atEnd()) {
        if (!skip()) return false;
    }
    if (violation_ != nullptr) return false;
    return position_ == frames_[0].end || fail("bytes are left after the last value");
}

}  // namespace telvora
