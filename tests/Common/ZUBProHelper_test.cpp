#include "Common/ZUBProHelper.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>

using zubtest::LogCapture;

namespace {

zub::Data bytes(const std::string& s) {
    return zub::Data(s.begin(), s.end());
}

zub::Data randomBytes(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    zub::Data d(n);
    for (auto& b : d) b = static_cast<std::uint8_t>(rng());
    return d;
}

zub::Data zlibCompress(const zub::Data& in) {
    uLongf size = compressBound(static_cast<uLong>(in.size()));
    zub::Data out(size);
    compress(out.data(), &size, in.data(), static_cast<uLong>(in.size()));
    out.resize(size);
    return out;
}

}  // namespace

TEST(ZUBProHelperRC4, PublishedVectorRoundTripAndEmptyKey) {
    zub::Data data = bytes("Plaintext");
    ZUBProHelper::ChiperRC4(data.data(), data.size(), "Key");
    EXPECT_EQ(data, (zub::Data{0xBB, 0xF3, 0x16, 0xE8, 0xD9, 0x40, 0xAF, 0x0A, 0xD3}));

    // Under the configured key, twice restores; the key text is used as it stands.
    const zub::Data original = randomBytes(1000, 1);
    zub::Data d = original;
    ZUBProHelper::ChiperRC4(d);
    zub::Data viaText = original;
    ZUBProHelper::ChiperRC4(viaText.data(), viaText.size(), "5f0c2e7a9b14d386c0e1a2f47d95b3e8");
    EXPECT_EQ(d, viaText);
    ZUBProHelper::ChiperRC4(d);
    EXPECT_EQ(d, original);

    // The key ends at its first NUL.
    zub::Data a = original, b = original;
    ZUBProHelper::ChiperRC4(a.data(), a.size(), std::string_view("Key\0junk", 8));
    ZUBProHelper::ChiperRC4(b.data(), b.size(), "Key");
    EXPECT_EQ(a, b);

    // An empty or missing key leaves the data as it is, with a warning.
    LogCapture log;
    for (const auto& key : {std::optional<std::string>(""), std::optional<std::string>()}) {
        ZUBProConfig::getInstance().setRc4Key(key);
        d = bytes("hello");
        ZUBProHelper::ChiperRC4(d);
        EXPECT_EQ(d, bytes("hello"));
    }
    EXPECT_TRUE(log.has("[ZUBDebug] [WARN]RC4 key is empty, data left unchanged"));
}

TEST(ZUBProHelperGZip, CompressesInStepsAndInflatesGzipAndZlibRefusingDamage) {
    zub::Data out = bytes("untouched");
    EXPECT_EQ(ZUBProHelper::GZip(zub::Data{}, &out), -1);
    EXPECT_EQ(out, bytes("untouched"));
    EXPECT_EQ(ZUBProHelper::GZip(bytes("x"), nullptr), -1);
    EXPECT_EQ(ZUBProHelper::uncompressGZip(zub::Data{}), zub::Data{});

    ASSERT_EQ(ZUBProHelper::GZip(bytes("hello hello hello"), &out), 0);
    const zub::Data hello = out;
    ASSERT_GE(out.size(), 18u);
    EXPECT_EQ(out[0], 0x1F);
    EXPECT_EQ(out[1], 0x8B);

    // Random data does not compress: the output passes several 8192-byte steps and
    // is cut to exactly the stream's length, which inflates back.
    const zub::Data noisy = randomBytes(30000, 7);
    ASSERT_EQ(ZUBProHelper::GZip(noisy, &out), 0);
    EXPECT_GT(out.size(), 3 * 8192u);
    EXPECT_EQ(ZUBProHelper::uncompressGZip(out), noisy);

    // The thread's compressor is reused: a body gives the same bytes whatever came before it.
    zub::Data again;
    ASSERT_EQ(ZUBProHelper::GZip(bytes("hello hello hello"), &again), 0);
    EXPECT_EQ(again, hello);

    // Inflating grows far past n + n/2; zlib streams are read too; damage gives nothing.
    const zub::Data text = bytes(std::string(5000, 'a') + "tail");
    zub::Data gz;
    ASSERT_EQ(ZUBProHelper::GZip(text, &gz), 0);
    EXPECT_EQ(ZUBProHelper::uncompressGZip(gz), text);
    EXPECT_EQ(ZUBProHelper::uncompressGZip(zlibCompress(text)), text);
    EXPECT_FALSE(ZUBProHelper::uncompressGZip(zub::Data(gz.begin(), gz.begin() + static_cast<long>(gz.size() / 2))));
    EXPECT_FALSE(ZUBProHelper::uncompressGZip(zub::Data(gz.begin(), gz.end() - 4))) << "no trailer";
    EXPECT_FALSE(ZUBProHelper::uncompressGZip(bytes("not compressed at all")));
    EXPECT_FALSE(ZUBProHelper::uncompressGZip(zub::Data{0x1f}));
}

TEST(ZUBProHelperMD5, HexDigest) {
    EXPECT_EQ(ZUBProHelper::md5encrypt(std::string("abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_FALSE(ZUBProHelper::md5encrypt(std::string()));
    EXPECT_FALSE(ZUBProHelper::md5encrypt(std::nullopt));
    EXPECT_EQ(ZUBProHelper::md5encrypt(std::string("abc\0def", 7)), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(ZUBProHelperJson, WriterAndReaderAcceptOnlyWhatThePlatformWould) {
    LogCapture log;
    zub::Value ordered = zub::Value::object();
    ordered["z"] = 1;
    ordered["a"] = "x/y";
    ordered["m"] = zub::Value::array({true, nullptr, 2.5});
    EXPECT_EQ(ZUBProHelper::objToJson(ordered), R"({"z":1,"a":"x/y","m":[true,null,2.5]})");
    EXPECT_EQ(ZUBProHelper::objToJson(zub::Value::array()), "[]");
    EXPECT_FALSE(log.contains("error json format"));

    const zub::Value refused[] = {
        zub::Value("text"),
        zub::Value(5),
        zub::Value(),
        zub::Value::object({{"d", zub::Value::binary({1, 2})}}),
        zub::Value::array({std::numeric_limits<double>::quiet_NaN()}),
        zub::Value::object({{"x", zub::Value::array({std::numeric_limits<double>::infinity()})}}),
    };
    for (const auto& v : refused) {
        log.clear();
        EXPECT_EQ(ZUBProHelper::objToJson(v), "") << v.type_name();
        EXPECT_TRUE(log.has("[ZUBDebug] error :error json format"));
    }
    log.clear();
    EXPECT_EQ(ZUBProHelper::objToJson(zub::Value::object({{"bad", std::string("\xff\xfe")}})), "");
    EXPECT_TRUE(log.has("[ZUBDebug] exception :%"));

    // The reader: containers only; text that is no JSON at all fails silently.
    log.clear();
    EXPECT_EQ(ZUBProHelper::jsonToObj(std::string("{}")), zub::Value::object());
    EXPECT_EQ(ZUBProHelper::jsonToObj(std::string("[1,\"a\"]")), zub::Value::array({1, "a"}));
    EXPECT_FALSE(ZUBProHelper::jsonToObj(std::string("not json")));
    EXPECT_FALSE(ZUBProHelper::jsonToObj(std::nullopt));
    EXPECT_TRUE(log.lines().empty());
    for (const char* scalar : {"5", "\"text\"", "null"}) EXPECT_FALSE(ZUBProHelper::jsonToObj(std::string(scalar)));
    EXPECT_EQ(log.lines(), std::vector<std::string>(3, "[ZUBDebug] error :An error happened while deserializing the JSON data."));

    // Values print as the platform prints objects.
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value(0)), "0");
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value(0.0)), "0");
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value(2.5)), "2.5");
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value("00")), "00");
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value(false)), "0");
    EXPECT_EQ(ZUBProHelper::valueDescription(zub::Value::object({{"a", 1}})), R"({"a":1})");
}

TEST(ZUBProHelperLog, OnlyWhenEnabledAndFormattedLikeThePlatform) {
    LogCapture log(/*enableDebug=*/false);
    ZUBProHelper::LogDebug("hidden %@", "x");
    ZUBProHelper::trackError("hidden too");
    EXPECT_TRUE(log.lines().empty());

    ZUBProConfig::getInstance().setDebugEnable(true);
    ZUBProHelper::LogDebug("Receive invalid response: %ld", 500L);
    ZUBProHelper::LogDebug("a %@ b %d c %s %% d %", std::string("one"), 2, "three");
    ZUBProHelper::LogDebug("[WARN]Local has version:%d for config:%d, while remote has version:%d", 3, 1, 4);
    ZUBProHelper::trackException(std::runtime_error("secret description"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "[ZUBDebug] Receive invalid response: 500",
                               "[ZUBDebug] a one b 2 c three % d %",
                               "[ZUBDebug] [WARN]Local has version:3 for config:1, while remote has version:4",
                               "[ZUBDebug] exception :%",
                           }));
}
