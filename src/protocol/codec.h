// SPDX-License-Identifier: Apache-2.0
//
// Codec<T>: the wire form of an argument of type T: its D-Bus type, and how it is read and written.
//
//     bool b    uint16_t q    double d    std::string s    std::vector<std::string> as    UniqueFd h
//     Dictionary a{sv}    Array av    TelvoraError (sis)    std::optional<T>: an array of at most one T
#pragma once

#include <string>

#include "protocol/property_list_codec.h"

namespace telvora {

template <typename T>
struct Codec;

template <>
struct Codec<bool> {
    static const char* type() { return "b"; }
    static bool read(ArgumentReader& in) { return in.boolean(); }
    static void write(ArgumentWriter& out, bool value) { out.boolean(value); }
};

template <>
struct Codec<uint16_t> {
    static const char* type() { return "q"; }
    static uint16_t read(ArgumentReader& in) { return in.u16(); }
    static void write(ArgumentWriter& out, uint16_t value) { out.u16(value); }
};

template <>
struct Codec<double> {
    static const char* type() { return "d"; }
    static double read(ArgumentReader& in) { return in.real(); }
    static void write(ArgumentWriter& out, double value) { out.real(value); }
};

template <>
struct Codec<std::string> {
    static const char* type() { return "s"; }
    static std::string read(ArgumentReader& in) { return in.string(); }
    static void write(ArgumentWriter& out, const std::string& value) { out.string(value); }
};

template <>
struct Codec<std::vector<std::string>> {
    static const char* type() { return "as"; }
    static std::vector<std::string> read(ArgumentReader& in) { return in.strings(); }
    static void write(ArgumentWriter& out, const std::vector<std::string>& value) { out.strings(value); }
};

template <>
struct Codec<UniqueFd> {
    static const char* type() { return "h"; }
    static UniqueFd read(ArgumentReader& in) { return in.file(); }
    static void write(ArgumentWriter& out, const UniqueFd&) { out.file(); }
};

template <>
struct Codec<Dictionary> {
    static const char* type() { return "a{sv}"; }
    static Dictionary read(ArgumentReader& in) { return in.dictionary(); }
    static void write(ArgumentWriter& out, const Dictionary& value) { out.dictionary(value); }
};

template <>
struct Codec<Array> {
    static const char* type() { return "av"; }
    static Array read(ArgumentReader& in) { return in.array(); }
    static void write(ArgumentWriter& out, const Array& value) { out.array(value); }
};

template <>
struct Codec<TelvoraError> {
    static const char* type() { return "(sis)"; }
    static TelvoraError read(ArgumentReader& in) { return in.error(); }
    static void write(ArgumentWriter& out, const TelvoraError& value) { out.error(value); }
};

template <typename T>
struct Codec<std::optional<T>> {
    static std::string type() { return std::string("a") + Codec<T>::type(); }
    static std::optional<T> read(ArgumentReader& in) {
        return in.optional(Codec<T>::type(), [&in] { return Codec<T>::read(in); });
    }
    static void write(ArgumentWriter& out, const std::optional<T>& value) {
        write(out, value ? &*value : nullptr);
    }
    // Null is written as std::nullopt.
    static void write(ArgumentWriter& out, const T* value) {
        out.optional(Codec<T>::type(), value, [&out](const T& present) { Codec<T>::write(out, present); });
    }
};

}  // namespace telvora
