// SPDX-License-Identifier: Apache-2.0
#include "util/compression.h"

#include <zlib.h>

#include <limits>

#include "util/log.h"

namespace TelvoradUtil {

namespace {

using telvora::kLogDebug;
using telvora::kLogError;

constexpr const char* kUnknown = "Unknown error code.";
constexpr const char* kVersionMismatch =
    "The version of zlib.h and the version of the library linked do not match.";

const char* initialisationErrorText(int code) {
    switch (code) {
        case Z_STREAM_ERROR:
            return "Invalid parameter passed in to function.";
        case Z_MEM_ERROR:
            return "Insufficient memory.";
        case Z_VERSION_ERROR:
            return kVersionMismatch;
        default:
            return kUnknown;
    }
}

const char* deflateErrorText(int code) {
    switch (code) {
        case Z_ERRNO:
            return "Error occured while reading file.";
        case Z_STREAM_ERROR:
            return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
        case Z_DATA_ERROR:
            return "The deflate data was invalid or incomplete.";
        case Z_MEM_ERROR:
            return "Memory could not be allocated for processing.";
        case Z_BUF_ERROR:
            return "Ran out of output buffer for writing compressed bytes.";
        case Z_VERSION_ERROR:
            return kVersionMismatch;
        default:
            return kUnknown;
    }
}

const char* messageOf(const z_stream& stream) {
    return stream.msg != nullptr ? stream.msg : "";
}

// Deflates the stream's whole input into `output`, which has room for it; the result of the last deflate().
int deflateWhole(z_stream& stream, std::string& output) {
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(output.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
        result = deflate(&stream, Z_FINISH);
    }
    return result;
}

}  // namespace

std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view input) {
    if (input.empty()) {
        TELVORA_LOG(kLogError, "compressDataWithZlibOrGzip: Cannot compress empty NSData");
        return std::nullopt;
    }
    z_stream stream{};
    // zlib does not write to its input; the member is not const only in old declarations of it.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(input.size());
    const int windowBits = gzip ? 31 : 15;  // 16 more ask for a gzip header and trailer
    const bool tooLong = input.size() > std::numeric_limits<uInt>::max() / 2;
    int result =
        tooLong ? Z_MEM_ERROR
                : deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) {
        TELVORA_LOG(kLogError, "compressDataWithZlibOrGzip: deflateInit2() Error: \"%s\" Message: \"%s\"",
                    initialisationErrorText(result), messageOf(stream));
        return std::nullopt;
    }

    std::string output(deflateBound(&stream, static_cast<uLong>(input.size())), '\0');
    result = deflateWhole(stream, output);
    if (result != Z_STREAM_END) {
        TELVORA_LOG(kLogError,
                    "compressDataWithZlibOrGzip: zlib error while attempting compression: \"%s\" "
                    "Message: \"%s\"",
                    deflateErrorText(result), messageOf(stream));
        deflateEnd(&stream);
        return std::nullopt;
    }
    output.resize(stream.total_out);
    deflateEnd(&stream);
    TELVORA_LOG(kLogDebug, "compressDataWithZlibOrGzip: Compressed file from %u to %u",
                static_cast<unsigned>(input.size()), static_cast<unsigned>(output.size()));
    return output;
}

std::optional<std::string> gzipDeflate(std::string_view input) {
    return compressDataWithZlibOrGzip(true, input);
}

}  // namespace TelvoradUtil
