// tezad's gzip answers: large bodies are compressed at zlib's fastest level.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "gzip_body.h"

namespace tezad {
namespace {

// The XFL byte of a gzip header: 4 when zlib compressed at its fastest level, 0 at its
// default level.
int ExtraFlags(const std::string& gzip) {
    return gzip.size() > 8 ? static_cast<unsigned char>(gzip[8]) : -1;
}

std::string Gunzip(const std::string& gzip, size_t size) {
    std::string out(size + 1, '\0');
    z_stream stream = {};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
    stream.avail_in = static_cast<uInt>(gzip.size());
    stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

TEST(GzipBody, LargeBodiesAreCompressedAtTheFastestLevel) {
    std::string text;
    for (int i = 0; text.size() <= kGzipFastAboveBytes; ++i) {
        text += "<volume><name>volume-" + std::to_string(i) + "</name></volume>\n";
    }
    std::string large;
    ASSERT_TRUE(GzipCompress(text, &large));
    EXPECT_EQ(ExtraFlags(large), 4);
    EXPECT_EQ(Gunzip(large, text.size()), text);
    EXPECT_LT(large.size(), text.size() / 5);

    const std::string smaller = text.substr(0, kGzipFastAboveBytes);
    std::string small;
    ASSERT_TRUE(GzipCompress(smaller, &small));
    EXPECT_EQ(ExtraFlags(small), 0);
    EXPECT_EQ(Gunzip(small, smaller.size()), smaller);
}

}  // namespace
}  // namespace tezad
