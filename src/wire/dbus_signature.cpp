// SPDX-License-Identifier: Apache-2.0
#include "wire/dbus_signature.h"

namespace telvora {

namespace {

// Parses one complete type at a time. The recursion is bounded by the nesting limits.
class SignatureParser {
  public:
    explicit SignatureParser(std::string_view text) : rest_(text) {}

    bool atEnd() const { return rest_.empty(); }
    bool parseType() {
        const char type = take();
        if (type == 'a') return parseArray();
        if (type == '(') return parseStructure();
        return type == 'v' || isBasicType(type);
    }

  private:
    char peek() const { return rest_.empty() ? '\0' : rest_.front(); }
    char take() {
        const char type = peek();
        if (!rest_.empty()) rest_.remove_prefix(1);
        return type;
    }

    bool parseArray() {
        if (++arrays_ > kMaxSignatureNesting) return false;
        const bool valid = peek() == '{' ? parseDictionaryEntry() : parseType();
        --arrays_;
        return valid;
    }

    bool parseStructure() {
        if (++structures_ > kMaxSignatureNesting || peek() == ')') return false;
        while (peek() != ')') {
            if (!parseType()) return false;
        }
        take();
        --structures_;
        return true;
    }

    // Counts as a structure, which it is on the wire.
    bool parseDictionaryEntry() {
        take();
        if (++structures_ > kMaxSignatureNesting || !isBasicType(take()) || !parseType()) return false;
        --structures_;
        return take() == '}';
    }

    std::string_view rest_;
    unsigned arrays_ = 0;
    unsigned structures_ = 0;
};

}  // namespace

bool isSignature(std::string_view text) {
    if (text.size() > kMaxSignatureLength) return false;
    SignatureParser parser(text);
    while (!parser.atEnd()) {
        if (!parser.parseType()) return false;
    }
    return true;
}

size_t completeTypeLength(std::string_view signature) {
    size_t length = 0;
    while (signature[length] == 'a')
        ++length;
    int open = 0;
    do {
        const char type = signature[length++];
        if (type == '(' || type == '{') ++open;
        if (type == ')' || type == '}') --open;
    } while (open > 0);
    return length;
}

}  // namespace telvora
