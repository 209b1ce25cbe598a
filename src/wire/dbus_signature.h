// SPDX-License-Identifier: Apache-2.0
//
// Signatures of the D-Bus Specification ("Type System", "Valid Signatures"). Thread-safe: no shared state.
#pragma once

#include <cstddef>
#include <string_view>

namespace telvora {

inline constexpr size_t kMaxSignatureLength = 255;
// Of arrays in arrays, and of structures in structures.
inline constexpr unsigned kMaxSignatureNesting = 32;

// Whether the text is a sequence of complete types within the limits. Empty is valid.
bool isSignature(std::string_view text);

// The length of the first complete type of a valid signature that is not empty.
size_t completeTypeLength(std::string_view signature);

// The alignment of a type by its first character; 0 for a character that starts no type.
constexpr size_t alignmentOf(char type) {
    switch (type) {
        case 'y':
        case 'g':
        case 'v':
            return 1;
        case 'n':
        case 'q':
            return 2;
        case 'b':
        case 'i':
        case 'u':
        case 's':
        case 'o':
        case 'a':
        case 'h':
            return 4;
        case 'x':
        case 't':
        case 'd':
        case '(':
        case '{':
            return 8;
        default:
            return 0;
    }
}

constexpr bool isContainerType(char type) {
    return type == 'a' || type == 'v' || type == '(' || type == '{';
}

constexpr bool isBasicType(char type) {
    return alignmentOf(type) != 0 && !isContainerType(type);
}

}  // namespace telvora
