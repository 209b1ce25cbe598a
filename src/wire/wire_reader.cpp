// SPDX-License-Identifier: Apache-2.0
#include "wire/wire_reader.h"

#include "util/ascii.h"
#include "util/utf8.h"
#include "wire/dbus_names.h"

namespace telvora {

namespace {

// UTF-8 without NUL.
bool isText(std::string_view text) {
    return isAsciiText(text) || (text.find('\0') == std::string_view::npos && isValidUtf8(text));
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

// `type`: of the container, whose `contents` are entered.
bool WireReader::push(std::string_view type, std::string_view contents, size_t end, bool isArray) {
    if (depth_ == kMaxContainerDepth) return fail("containers are nested too deeply");
    consumed(type.size());
    frames_[++depth_] = {contents.data(), contents.data(), contents.data() + contents.size(), end,
                         isArray ? 1U : 0U};
    return true;
}

bool WireReader::enter() {
    const Frame& frame = frames_[depth_];
    const std::string_view rest = types();
    // An array has one complete type.
    const auto own = [&] { return frame.isArray() ? rest : rest.substr(0, completeTypeLength(rest)); };
    switch (type()) {
        case 'a':
            return enterArray(own());
        case '(':
        case '{': {
            const std::string_view whole = own();
            return align(8) && push(whole, whole.substr(1, whole.size() - 2), frame.end);
        }
        case 'v': {
            std::string_view content;
            if (!readSignature(content)) return false;
            if (content.empty() || (content.size() > 1 && completeTypeLength(content) != content.size()))
                return fail("a variant's signature is not one complete type");
            return push(rest.substr(0, 1), content, frame.end);
        }
        default:
            return false;
    }
}

bool WireReader::enterArray(std::string_view type) {
    const std::string_view element = type.substr(1);
    uint32_t length = 0;
    if (!readFixed(length)) return false;
    if (length > kMaxArrayLength) return fail("an array is too long");
    if (!align(alignmentOf(element.front()))) return false;
    if (frames_[depth_].end - position_ < length) return fail("an array ends beyond its container");
    return push(type, element, position_ + length, true);
}

bool WireReader::leave() {
    if (depth_ == 0) return false;
    while (!atEnd()) {
        if (!skip()) return false;
    }
    --depth_;
    return true;
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
