#include "Common/Network/ZUBHttp.h"
#include "Common/Network/ZUBWireCodec.h"
#include "Common/ZUBProHelper.h"

#include <gtest/gtest.h>

namespace {

const std::string kKey = "5f0c2e7a9b14d386c0e1a2f47d95b3e8";

zub::Data wireFor(const zub::Data& plain) {
    zub::HttpRequest request;
    return *ZUBHttp::getInstance().compressData(plain, request);
}

zub::Data decipher(zub::Data d) {
    ZUBProHelper::ChiperRC4(d.data(), d.size(), kKey);
    return d;
}

zub::Data encipher(zub::Data d) {
    return decipher(std::move(d));
}

}  // namespace

TEST(ZUBWireCodec, RefusesDamagedLongBodies) {
    const std::string text = "[" + std::string(600, '1') + "]";
    const zub::Data plain(text.begin(), text.end());
    const zub::Data wire = wireFor(plain);

    auto ok = zub::WireCodec::unwrapRequest(wire, "rc4,gzip", kKey);
    ASSERT_TRUE(ok.plain);
    EXPECT_EQ(*ok.plain, plain);

    EXPECT_FALSE(zub::WireCodec::unwrapRequest(wire, "rc4,gzip", "another key").plain);

    zub::Data wrongLength = decipher(wire);
    wrongLength[3] ^= 0x01;
    auto r = zub::WireCodec::unwrapRequest(encipher(wrongLength), "rc4,gzip", kKey);
    EXPECT_FALSE(r.plain);
    EXPECT_FALSE(r.error.empty());

    zub::Data truncated(wire.begin(), wire.end() - 10);
    EXPECT_FALSE(zub::WireCodec::unwrapRequest(truncated, "rc4,gzip", kKey).plain);
    EXPECT_FALSE(zub::WireCodec::unwrapRequest(zub::Data{1, 2}, "rc4,gzip", kKey).plain);
    EXPECT_FALSE(zub::WireCodec::unwrapRequest(wire, "gzip", kKey).plain);

    // A declared length over the ceiling is refused before anything is inflated.
    auto big = zub::WireCodec::unwrapRequest(wire, "rc4,gzip", kKey, 100);
    EXPECT_FALSE(big.plain);
    EXPECT_NE(big.error.find("over the limit"), std::string::npos);
}
