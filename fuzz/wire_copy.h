// SPDX-License-Identifier: Apache-2.0
//
// Writes a message again, value by value.
#pragma once

#include <string>

#include "wire/wire_writer.h"

namespace telvora::fuzz {

inline bool copyValues(WireReader& in, WireWriter& out);

inline bool copyContainer(WireReader& in, WireWriter& out) {
    return in.enter() && copyValues(in, out) && in.leave();
}

inline bool copyText(WireReader& in, WireWriter& out, bool isSignature) {
    std::string_view text;
    if (!in.read(text)) return false;
    isSignature ? out.appendSignature(text) : out.append(text);
    return true;
}

template <typename T>
bool copyFixed(WireReader& in, WireWriter& out) {
    T value{};
    if (!in.read(value)) return false;
    out.append(value);
    return true;
}

inline bool copyValue(WireReader& in, WireWriter& out) {
    switch (in.type()) {
        case 'y':
            return copyFixed<uint8_t>(in, out);
        case 'b':
            return copyFixed<bool>(in, out);
        case 'n':
            return copyFixed<int16_t>(in, out);
        case 'q':
            return copyFixed<uint16_t>(in, out);
        case 'i':
            return copyFixed<int32_t>(in, out);
        case 'u':
            return copyFixed<uint32_t>(in, out);
        case 'x':
            return copyFixed<int64_t>(in, out);
        case 't':
            return copyFixed<uint64_t>(in, out);
        case 'd':
            return copyFixed<double>(in, out);
        case 's':
        case 'o':
        case 'g':
            return copyText(in, out, in.type() == 'g');
        case 'a': {
            const auto array = out.openArray(alignmentOf(in.types()[1]));
            if (!copyContainer(in, out)) return false;
            out.closeArray(array);
            return true;
        }
        case 'v':
            if (!in.enter()) return false;
            out.appendSignature(in.types());
            return copyValues(in, out) && in.leave();
        case '(':
        case '{':
            out.beginStructure();
            return copyContainer(in, out);
        default: {
            uint32_t index = 0;
            if (!in.readDescriptor(index)) return false;
            out.append(index);
            return true;
        }
    }
}

inline bool copyValues(WireReader& in, WireWriter& out) {
    while (!in.atEnd()) {
        if (!copyValue(in, out)) return false;
    }
    return in.violation() == nullptr;
}

// False if the message's body is not valid, or refers to a descriptor that did not come.
inline bool copyMessage(const MessageView& view, std::string& written) {
    WireReader in = view.reader();
    WireWriter out(written, view);
    return copyValues(in, out) && in.finish() && out.finish(size_t{1} << 20);
}

}  // namespace telvora::fuzz
