// SPDX-License-Identifier: Apache-2.0
//
// Property lists on the wire: the arguments of calls and the answers. A value that is read and written can be
// read again and is the same, and nests no deeper than allowed.
#include <string>

#include "fuzz/target.h"
#include "protocol/property_list_codec.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

int depthOf(const PropertyList& value) {
    int depth = 0;
    if (const auto* array = value.getIf<Array>()) {
        for (const PropertyList& element : *array)
            depth = std::max(depth, depthOf(element));
        return depth + 1;
    }
    if (const auto* dictionary = value.getIf<Dictionary>()) {
        for (const auto& entry : *dictionary)
            depth = std::max(depth, depthOf(entry.value));
        return depth + 1;
    }
    return depth;
}

struct Values {
    Dictionary dictionary;
    Array array;
};

std::optional<Values> read(const MessageView& view) {
    BusMessage message(view, {});
    ArgumentReader in(message);
    Values values;
    values.dictionary = in.dictionary();
    values.array = in.array();
    if (!in.ok() || !message.reader().finish()) return std::nullopt;
    return values;
}

std::string write(const Values& values) {
    MessageView header;
    header.type = MessageType::methodReturn;
    header.serial = header.replySerial = 1;
    header.signature = "a{sv}av";
    std::string bytes;
    WireWriter writer(bytes, header);
    ArgumentWriter out(writer);
    out.dictionary(values.dictionary);
    out.array(values.array);
    require(out.ok() && writer.finish(size_t{1} << 20), "what was read can be written");
    return bytes;
}

}  // namespace

void tryInput(std::string_view bytes) {
    Input input(bytes);
    MessageView view;
    view.type = MessageType::methodReturn;
    view.order = input.byte() % 2 == 0 ? kNativeByteOrder : ByteOrder::big;
    view.signature = "a{sv}av";
    view.body = input.rest();
    const auto values = read(view);
    if (!values) return;
    require(std::max(depthOf(values->dictionary), depthOf(values->array)) <= kMaxPropertyListDepth,
            "the nesting is bounded");
    // Bytes are compared, as a NaN does not equal itself.
    const std::string written = write(*values);
    const auto parsed = parseMessage(written, 0);
    require(parsed && *parsed, "a written message is valid");
    const auto again = read(**parsed);
    require(again && write(*again) == written, "values read again are equal");
}

}  // namespace telvora::fuzz
