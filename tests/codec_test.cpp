#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "qxcommon-util/codec.h"
#include "qxcommon-util/strbuf.h"
#include "support/alloc_fail.hpp"
#include "support/simd_path.hpp"

namespace {

using namespace std::string_literals;

std::vector<unsigned char> bytes_of(std::string_view s) {
    return std::vector<unsigned char>(s.begin(), s.end());
}

// A heap copy of exactly the characters and their NUL, so that a read past
// the terminator is caught by the address sanitizer.
std::vector<char> c_string(std::string_view s) {
    std::vector<char> out(s.begin(), s.end());
    out.push_back('\0');
    return out;
}

std::string text_of(const strbuf &sb) {
    return std::string(sb.text, sb.length);
}

std::vector<unsigned char> random_bytes(std::mt19937 &generator, std::size_t n) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<unsigned char> out(n);
    for (auto &b : out)
        b = static_cast<unsigned char>(byte(generator));
    return out;
}

struct rfc_vector {
    const char *bytes;
    const char *base32;
    const char *base64;
};

// The test vectors that RFC 4648 gives for both encodings.
const rfc_vector rfc_vectors[] = {
    {"", "", ""},
    {"f", "MY======", "Zg=="},
    {"fo", "MZXQ====", "Zm8="},
    {"foo", "MZXW6===", "Zm9v"},
    {"foob", "MZXW6YQ=", "Zm9vYg=="},
    {"fooba", "MZXW6YTB", "Zm9vYmE="},
    {"foobar", "MZXW6YTBOI======", "Zm9vYmFy"},
};

std::string without_padding(std::string s) {
    s.erase(s.find_last_not_of('=') + 1);
    return s;
}

// Base64 written out from the rule, six bits at a time, most significant
// first, the last group's free bits zero and "=" up to four characters.
std::string base64_by_the_rule(const std::vector<unsigned char> &bytes) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned long group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < n ? bytes[i + k] : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= n ? alphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return out;
}

// The lengths and positions around the widths in which long inputs are
// taken: every one from 0 to a little over three rounds of 32 characters.
constexpr std::size_t long_input = 100;

// ---- base32_encode ----

TEST(Base32Encode, WritesTwoCharactersAndANulForOneByte) {
    char out[3] = {'x', 'x', 'x'};
    EXPECT_EQ(base32_encode(bytes_of("f").data(), 1, out, 3), 2);
    EXPECT_EQ(std::string(out, 3), "MY\0"s);
}

TEST(Base32Encode, RefusesAnOutputWithoutRoomForTheNul) {
    char out[2] = {'x', 'x'};
    EXPECT_EQ(base32_encode(bytes_of("f").data(), 1, out, 2), -1);
    EXPECT_EQ(std::string(out, 2), "xx");
}

TEST(Base32Encode, GivesTheRfcVectorsWithoutPadding) {
    for (const auto &v : rfc_vectors) {
        const std::string expected = without_padding(v.base32);
        const int n = static_cast<int>(std::strlen(v.bytes));
        std::vector<char> out(expected.size() + 1, 'x');
        EXPECT_EQ(base32_encode(reinterpret_cast<const unsigned char *>(v.bytes), n, out.data(),
                                static_cast<int>(out.size())),
                  static_cast<int>(expected.size()))
            << v.bytes;
        EXPECT_EQ(std::string(out.data(), out.size()), expected + '\0') << v.bytes;
    }
}

TEST(Base32Encode, NeedsOneMorePlaceThanItsCharacters) {
    for (const auto &v : rfc_vectors) {
        const int c = static_cast<int>(without_padding(v.base32).size());
        std::vector<char> out(static_cast<std::size_t>(c), 'x');
        EXPECT_EQ(base32_encode(reinterpret_cast<const unsigned char *>(v.bytes),
                                static_cast<int>(std::strlen(v.bytes)), out.data(), c),
                  -1);
        EXPECT_EQ(std::string(out.begin(), out.end()), std::string(out.size(), 'x'));
    }
}

TEST(Base32Encode, RefusesANegativeLength) {
    char out[16] = "untouched";
    EXPECT_EQ(base32_encode(bytes_of("f").data(), -1, out, 16), -1);
    EXPECT_STREQ(out, "untouched");
}

TEST(Base32Encode, WritesOnlyTheNulForNoInput) {
    char out[16] = "untouched";
    EXPECT_EQ(base32_encode(bytes_of("f").data(), 0, out, 1), 0);
    EXPECT_EQ(std::string(out, 3), "\0nt"s);
}

TEST(Base32Encode, TreatsANullInputAsEmptyOnceTheSizeTestPassed) {
    char out[16] = "untouched";
    EXPECT_EQ(base32_encode(nullptr, 5, out, 9), 0);
    EXPECT_EQ(std::string(out, 3), "\0nt"s);
    // The size test comes first: eight characters need nine places.
    std::strcpy(out, "untouched");
    EXPECT_EQ(base32_encode(nullptr, 5, out, 8), -1);
    EXPECT_STREQ(out, "untouched");
}

TEST(Base32Encode, FillsTheLastPartialGroupWithZeroBits) {
    // 0xFF: 11111 111(00) -> "7" and "4" (28 = 11100).
    const unsigned char ff = 0xFF;
    char out[3];
    EXPECT_EQ(base32_encode(&ff, 1, out, 3), 2);
    EXPECT_STREQ(out, "74");
}

// ---- base32_decode ----

TEST(Base32Decode, AcceptsLowerCaseAndStopsAtThePad) {
    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(base32_decode("my======", out, 4), 1);
    EXPECT_EQ(std::string(out, out + 3), "f\0x"s);
}

TEST(Base32Decode, SkipsDashesAndWhiteSpace) {
    unsigned char out[8];
    EXPECT_EQ(base32_decode("MZ-XW 6", out, 8), 3);
    EXPECT_EQ(std::string(out, out + 4), "foo\0"s);
    EXPECT_EQ(base32_decode("\tMZ\nXW\r\v\f6 ", out, 8), 3);
    EXPECT_EQ(std::string(out, out + 4), "foo\0"s);
}

TEST(Base32Decode, RejectsACharacterOutsideTheAlphabet) {
    unsigned char out[8];
    EXPECT_EQ(base32_decode("MZ1", out, 8), -1);
    EXPECT_EQ(base32_decode("MZ8", out, 8), -1);
    EXPECT_EQ(base32_decode("MZ+", out, 8), -1);
    EXPECT_EQ(base32_decode("MZ\xC3\xA9", out, 8), -1);
}

TEST(Base32Decode, IgnoresEverythingAfterThePad) {
    unsigned char out[8];
    EXPECT_EQ(base32_decode("MY=1!not base32", out, 8), 1);
    EXPECT_EQ(out[0], 'f');
    EXPECT_EQ(out[1], '\0');
}

TEST(Base32Decode, RefusesWhenTheNulDoesNotFit) {
    auto exact = std::vector<unsigned char>(3, 'x');
    EXPECT_EQ(base32_decode("MZXW6", exact.data(), 3), -1);
    auto enough = std::vector<unsigned char>(4, 'x');
    EXPECT_EQ(base32_decode("MZXW6", enough.data(), 4), 3);
    EXPECT_EQ(std::string(enough.begin(), enough.end()), "foo\0"s);
}

TEST(Base32Decode, RefusesAnOutputSizeBelowOne) {
    unsigned char out[1] = {'x'};
    EXPECT_EQ(base32_decode("", out, 0), -1);
    EXPECT_EQ(base32_decode("MY", out, -5), -1);
    EXPECT_EQ(out[0], 'x');
}

TEST(Base32Decode, WritesOnlyTheNulForAnEmptyInput) {
    unsigned char out[1] = {'x'};
    EXPECT_EQ(base32_decode("", out, 1), 0);
    EXPECT_EQ(out[0], '\0');
}

TEST(Base32Decode, DropsBitsOfAGroupThatEndsEarly) {
    // One character is five bits: no byte. Three are fifteen: one byte.
    for (const char *input : {"M", "MZ", "MZX", "MZXW", "MZXW6Y", "MZXW6YT"}) {
        const auto in = c_string(input);
        const std::size_t bytes = std::strlen(input) * 5 / 8;
        std::vector<unsigned char> out(bytes + 1, 'x');
        EXPECT_EQ(base32_decode(in.data(), out.data(), static_cast<int>(out.size())),
                  static_cast<int>(bytes))
            << input;
        EXPECT_EQ(std::string(out.begin(), out.end()), std::string("foobar", bytes) + '\0')
            << input;
    }
}

TEST(Base32Decode, RefusesAGroupThatEndsEarlyWhenItsNulDoesNotFit) {
    // "MZX" is fifteen bits: one byte, which with its NUL needs two places.
    for (const char *input : {"MZX", "MZXW6YT"}) {
        const auto in = c_string(input);
        const std::size_t bytes = std::strlen(input) * 5 / 8;
        std::vector<unsigned char> out(bytes, 'x');
        EXPECT_EQ(base32_decode(in.data(), out.data(), static_cast<int>(bytes)), -1) << input;
    }
}

TEST(Base32Decode, GivesTheRfcVectorsBackWithAndWithoutPadding) {
    for (const auto &v : rfc_vectors) {
        const std::size_t n = std::strlen(v.bytes);
        for (const std::string &text : {std::string(v.base32), without_padding(v.base32)}) {
            const auto in = c_string(text);
            std::vector<unsigned char> out(n + 1, 'x');
            EXPECT_EQ(base32_decode(in.data(), out.data(), static_cast<int>(n + 1)),
                      static_cast<int>(n))
                << text;
            EXPECT_EQ(std::string(out.begin(), out.end()), std::string(v.bytes) + '\0');
            // One place fewer leaves no room for the NUL.
            if (n > 0) {
                std::vector<unsigned char> small(n, 'x');
                EXPECT_EQ(base32_decode(in.data(), small.data(), static_cast<int>(n)), -1);
            }
        }
    }
}

TEST(Base32RoundTrip, GivesBackRandomBytesOfEveryLengthUpTo300) {
    std::mt19937 generator(4648);
    for (std::size_t n = 0; n <= 300; ++n) {
        const auto input = random_bytes(generator, n);
        const std::size_t c = (n * 8 + 4) / 5;
        std::vector<char> text(c + 1);
        ASSERT_EQ(base32_encode(input.data(), static_cast<int>(n), text.data(),
                                static_cast<int>(text.size())),
                  static_cast<int>(c));
        ASSERT_EQ(text[c], '\0');
        std::vector<unsigned char> output(n + 1, 'x');
        ASSERT_EQ(base32_decode(text.data(), output.data(), static_cast<int>(output.size())),
                  static_cast<int>(n))
            << n;
        EXPECT_TRUE(std::equal(input.begin(), input.end(), output.begin())) << n;
        EXPECT_EQ(output[n], '\0');
    }
}

// ---- base64_encode ----

TEST(Base64Encode, PadsTwoBytesToFourCharacters) {
    char out[5] = {'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_encode(bytes_of("ab").data(), 2, out, 4), 4);
    EXPECT_EQ(std::string(out, 5), "YWI=x"); // no NUL written
}

TEST(Base64Encode, AnswersTheNeededCountForANullOutput) {
    EXPECT_EQ(base64_encode(bytes_of("ab").data(), 2, nullptr, 0), 4);
    EXPECT_EQ(base64_encode(bytes_of("abcd").data(), 4, nullptr, 0), 8);
    EXPECT_EQ(base64_encode(bytes_of("abc").data(), 3, nullptr, 0), 4);
    EXPECT_EQ(base64_encode(nullptr, 0, nullptr, 0), 0);
}

TEST(Base64Encode, GivesTheRfcVectors) {
    for (const auto &v : rfc_vectors) {
        const std::string expected = v.base64;
        const int n = static_cast<int>(std::strlen(v.bytes));
        std::vector<char> out(expected.size() + 1, 'x');
        EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char *>(v.bytes), n, out.data(),
                                static_cast<int>(expected.size())),
                  static_cast<int>(expected.size()))
            << v.bytes;
        EXPECT_EQ(std::string(out.begin(), out.end()), expected + 'x');
    }
}

TEST(Base64Encode, RefusesAnOutputOneCharacterShort) {
    for (const auto &v : rfc_vectors) {
        const int n = static_cast<int>(std::strlen(v.bytes));
        if (n == 0)
            continue;
        const int needed = static_cast<int>(std::strlen(v.base64));
        std::vector<char> out(static_cast<std::size_t>(needed - 1), 'x');
        EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char *>(v.bytes), n, out.data(),
                                needed - 1),
                  -1);
        EXPECT_EQ(std::string(out.begin(), out.end()), std::string(out.size(), 'x'));
    }
}

TEST(Base64Encode, WritesNothingForALengthBelowOne) {
    char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_encode(bytes_of("ab").data(), 0, out, 4), 0);
    EXPECT_EQ(base64_encode(bytes_of("ab").data(), -1, out, 4), 0);
    EXPECT_EQ(std::string(out, 4), "xxxx");
}

TEST(Base64Encode, WritesEverySixBitsOfLongInputsOfEveryLength) {
    std::mt19937 generator(2024);
    for (std::size_t n = 0; n <= long_input; ++n) {
        const auto input = random_bytes(generator, n);
        const std::string expected = base64_by_the_rule(input);
        // Exactly the needed room, and a mark behind it that must stay.
        std::vector<char> out(expected.size() + 1, '#');
        ASSERT_EQ(base64_encode(input.data(), static_cast<int>(n), out.data(),
                                static_cast<int>(expected.size())),
                  static_cast<int>(expected.size()))
            << n;
        EXPECT_EQ(std::string(out.data(), expected.size()), expected) << n;
        EXPECT_EQ(out.back(), '#') << n;
    }
}

// ---- base64_encode_wrap ----

TEST(Base64EncodeWrap, EndsAFullLastLineWithALineFeed) {
    const std::vector<unsigned char> input(57, 0);
    std::vector<char> out(78, 'x');
    EXPECT_EQ(base64_encode_wrap(input.data(), 57, out.data(), 78, 76), 77);
    EXPECT_EQ(std::string(out.begin(), out.end()), std::string(76, 'A') + "\nx");
}

TEST(Base64EncodeWrap, BreaksAfterEveryLineLengthCharacters) {
    const std::vector<unsigned char> input(60, 0);
    std::vector<char> out(81);
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, out.data(), 81, 76), 81);
    EXPECT_EQ(std::string(out.begin(), out.end()), std::string(76, 'A') + "\nAAAA");

    std::vector<char> out40(82);
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, out40.data(), 82, 40), 82);
    EXPECT_EQ(std::string(out40.begin(), out40.end()),
              std::string(40, 'A') + "\n" + std::string(40, 'A') + "\n");
}

TEST(Base64EncodeWrap, CountsPadCharactersTowardsALine) {
    char out[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), 2, out, 8, 4), 5);
    EXPECT_EQ(std::string(out, 8), "YWI=\nxxx");
    EXPECT_EQ(base64_encode_wrap(bytes_of("a").data(), 1, out, 8, 3), 5);
    EXPECT_EQ(std::string(out, 8), "YQ=\n=xxx");
}

TEST(Base64EncodeWrap, AnswersLinesPlusOneForANullOutput) {
    const std::vector<unsigned char> input(60, 0);
    EXPECT_EQ(base64_encode_wrap(input.data(), 57, nullptr, 0, 76), 2);
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, nullptr, 0, 76), 2);
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, nullptr, 0, 40), 3);
    EXPECT_EQ(base64_encode_wrap(input.data(), 3, nullptr, 0, 76), 1);
}

TEST(Base64EncodeWrap, TestsTheCapacityOnlyAgainstLinesPlusOne) {
    const std::vector<unsigned char> input(60, 0);
    char out[100];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, out, 2, 40), -1);
    EXPECT_EQ(out[0], 'x');
    // Three places pass the test although 82 bytes are written: the room is
    // the caller's business.
    EXPECT_EQ(base64_encode_wrap(input.data(), 60, out, 3, 40), 82);
    EXPECT_EQ(std::string(out, 83), std::string(40, 'A') + "\n" + std::string(40, 'A') + "\nx");
}

TEST(Base64EncodeWrap, WritesNothingForALengthBelowOne) {
    char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), 0, out, 4, 76), 0);
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), -3, out, 4, 76), 0);
    EXPECT_EQ(std::string(out, 4), "xxxx");
    // The capacity test still comes first: an empty input counts one.
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), 0, out, 0, 76), -1);
}

TEST(Base64EncodeWrap, RefusesALineLengthOfZero) {
    char out[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), 2, out, 8, 0), -1);
    EXPECT_EQ(base64_encode_wrap(bytes_of("ab").data(), 2, nullptr, 0, 0), -1);
    EXPECT_EQ(std::string(out, 8), "xxxxxxxx");
}

// ---- base64_decode ----

TEST(Base64Decode, DecodesAWholeGroup) {
    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_decode("YWJj", out, 4), 3);
    EXPECT_EQ(std::string(out, out + 4), "abcx"); // no NUL written
}

TEST(Base64Decode, StopsAtABlank) {
    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(base64_decode("YW Jj", out, 4), 1);
    EXPECT_EQ(std::string(out, out + 4), "axxx");
}

TEST(Base64Decode, RefusesAnOutputOneByteShort) {
    std::vector<unsigned char> two(2, 'x');
    EXPECT_EQ(base64_decode("YWJj", two.data(), 2), -1);
    EXPECT_EQ(std::string(two.begin(), two.end()), "ab"); // written before the refusal
    std::vector<unsigned char> three(3, 'x');
    EXPECT_EQ(base64_decode("YWJj", three.data(), 3), 3);
    EXPECT_EQ(std::string(three.begin(), three.end()), "abc");
}

TEST(Base64Decode, AcceptsAnyOutputSizeWhenNoByteIsMade) {
    EXPECT_EQ(base64_decode("", nullptr, 0), 0);
    EXPECT_EQ(base64_decode("Y", nullptr, 0), 0);
    EXPECT_EQ(base64_decode("=Y", nullptr, -1), 0);
}

TEST(Base64Decode, DropsBitsOfAGroupThatEndsEarly) {
    const char *inputs[] = {"Z", "Zm", "Zm9", "Zm9vY", "Zm9vYm", "Zm9vYmF"};
    const std::size_t bytes[] = {0, 1, 2, 3, 4, 5};
    for (std::size_t i = 0; i < std::size(inputs); ++i) {
        const auto in = c_string(inputs[i]);
        std::vector<unsigned char> out(bytes[i]);
        EXPECT_EQ(base64_decode(in.data(), out.data(), static_cast<int>(bytes[i])),
                  static_cast<int>(bytes[i]))
            << inputs[i];
        EXPECT_EQ(std::string(out.begin(), out.end()), std::string("foobar", bytes[i]));
        if (bytes[i] > 0) {
            std::vector<unsigned char> small(bytes[i] - 1);
            EXPECT_EQ(base64_decode(in.data(), small.data(), static_cast<int>(bytes[i] - 1)), -1);
        }
    }
}

TEST(Base64Decode, EndsAtTheFirstPadAndIgnoresWhatFollows) {
    unsigned char out[8];
    EXPECT_EQ(base64_decode("YQ==YWJj", out, 8), 1);
    EXPECT_EQ(out[0], 'a');
    EXPECT_EQ(base64_decode("YQ", out, 8), 1);
    EXPECT_EQ(base64_decode("YWI=", out, 8), 2);
}

TEST(Base64Decode, DecodesAWrappedInputOnlyToItsFirstLineFeed) {
    unsigned char out[16];
    EXPECT_EQ(base64_decode("YWJj\nZGVm", out, 16), 3);
    EXPECT_EQ(std::string(out, out + 3), "abc");
    EXPECT_EQ(base64_decode("YWJj\r\nZGVm", out, 16), 3);
}

TEST(Base64Decode, EndsAtACharacterOfAnotherAlphabet) {
    unsigned char out[8];
    EXPECT_EQ(base64_decode("YWJj-_", out, 8), 3);
    EXPECT_EQ(base64_decode("YW,Jj", out, 8), 1);
    EXPECT_EQ(base64_decode("\xC3\xA9YWJj", out, 8), 0);
}

TEST(Base64Decode, GivesTheRfcVectorsBack) {
    for (const auto &v : rfc_vectors) {
        const std::size_t n = std::strlen(v.bytes);
        const auto in = c_string(v.base64);
        std::vector<unsigned char> out(n);
        EXPECT_EQ(base64_decode(in.data(), out.data(), static_cast<int>(n)), static_cast<int>(n))
            << v.base64;
        EXPECT_EQ(std::string(out.begin(), out.end()), v.bytes);
    }
}

TEST(Base64RoundTrip, GivesBackRandomBytesOfEveryLengthUpTo300) {
    std::mt19937 generator(1987);
    for (std::size_t n = 0; n <= 300; ++n) {
        const auto input = random_bytes(generator, n);
        const int needed = base64_encode(input.data(), static_cast<int>(n), nullptr, 0);
        ASSERT_EQ(needed, static_cast<int>((n + 2) / 3 * 4));
        std::vector<char> text(static_cast<std::size_t>(needed) + 1, '\0');
        ASSERT_EQ(base64_encode(input.data(), static_cast<int>(n), text.data(), needed), needed);
        std::vector<unsigned char> output(n);
        ASSERT_EQ(base64_decode(text.data(), output.data(), static_cast<int>(n)),
                  static_cast<int>(n))
            << n;
        EXPECT_EQ(output, input) << n;
    }
}

TEST(Base64Decode, EndsALongInputAtAForeignCharacterInAnyPlace) {
    std::mt19937 generator(77);
    const auto data = random_bytes(generator, 75);
    const std::string encoded = base64_by_the_rule(data); // 100 characters, no padding
    ASSERT_EQ(encoded.size(), long_input);
    for (std::size_t k = 0; k < encoded.size(); ++k) {
        for (const char foreign : {' ', '=', '\n', '-', '\xC3'}) {
            std::string text = encoded;
            text[k] = foreign;
            const auto in = c_string(text);
            // Every four characters give three bytes; the left-over bits of
            // the k characters before the foreign one are dropped.
            const std::size_t bytes = k * 6 / 8;
            std::vector<unsigned char> out(data.size() + 1, '#');
            ASSERT_EQ(base64_decode(in.data(), out.data(), static_cast<int>(data.size())),
                      static_cast<int>(bytes))
                << k;
            EXPECT_TRUE(
                std::equal(data.begin(), data.begin() + static_cast<long>(bytes), out.begin()))
                << k;
            EXPECT_EQ(out[bytes], '#') << k;
        }
    }
}

TEST(Base64Decode, RefusesEveryOutputSizeShortOfALongInput) {
    std::mt19937 generator(78);
    const auto data = random_bytes(generator, 75);
    const auto in = c_string(base64_by_the_rule(data));
    for (std::size_t size = 0; size <= data.size(); ++size) {
        // Exactly size bytes, so that a store beyond them is seen.
        std::vector<unsigned char> out(size + 1, '#');
        const int result = base64_decode(in.data(), out.data(), static_cast<int>(size));
        if (size < data.size()) {
            EXPECT_EQ(result, -1) << size;
            EXPECT_TRUE(
                std::equal(out.begin(), out.begin() + static_cast<long>(size), data.begin()))
                << size;
        } else {
            EXPECT_EQ(result, static_cast<int>(data.size()));
            EXPECT_TRUE(std::equal(data.begin(), data.end(), out.begin()));
        }
        EXPECT_EQ(out[size], '#') << size;
    }
}

// ---- hex_decode and hex4_decode ----

TEST(HexDecode, DecodesDigitsOfEitherCaseAndEndsWithANul) {
    unsigned char out[8];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(hex_decode("4a6B", out, 8), 2);
    EXPECT_EQ(std::string(out, out + 4), "\x4A\x6B\0x"s);
}

TEST(HexDecode, WritesNothingForAnInvalidFirstPair) {
    unsigned char out[8];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(hex_decode("4g", out, 8), 0);
    EXPECT_EQ(hex_decode("g4", out, 8), 0);
    EXPECT_EQ(hex_decode("", out, 8), 0);
    EXPECT_EQ(hex_decode("4", out, 8), 0);
    EXPECT_EQ(std::string(out, out + 8), "xxxxxxxx");
}

TEST(HexDecode, StopsAfterOutsizeLessOneBytes) {
    std::vector<unsigned char> out(3, 'x');
    EXPECT_EQ(hex_decode("414243", out.data(), 3), 2);
    EXPECT_EQ(std::string(out.begin(), out.end()), "AB\0"s);
}

TEST(HexDecode, FillsAnOutputOfExactlyTheNeededSize) {
    // Three bytes and the NUL need four places; with three, the last byte
    // is left out.
    const auto in = c_string("414243");
    std::vector<unsigned char> exact(4, 'x');
    EXPECT_EQ(hex_decode(in.data(), exact.data(), 4), 3);
    EXPECT_EQ(std::string(exact.begin(), exact.end()), "ABC\0"s);
    std::vector<unsigned char> short_by_one(3, 'x');
    EXPECT_EQ(hex_decode(in.data(), short_by_one.data(), 3), 2);
    EXPECT_EQ(std::string(short_by_one.begin(), short_by_one.end()), "AB\0"s);
}

TEST(HexDecode, IgnoresAnOddLastDigitAtAndOneBelowTheNeededSize) {
    // Two whole pairs and a lone digit: two bytes and the NUL need three.
    const auto in = c_string("41424");
    std::vector<unsigned char> exact(3, 'x');
    EXPECT_EQ(hex_decode(in.data(), exact.data(), 3), 2);
    EXPECT_EQ(std::string(exact.begin(), exact.end()), "AB\0"s);
    std::vector<unsigned char> short_by_one(2, 'x');
    EXPECT_EQ(hex_decode(in.data(), short_by_one.data(), 2), 1);
    EXPECT_EQ(std::string(short_by_one.begin(), short_by_one.end()), "A\0"s);
}

TEST(HexDecode, StopsAtTheFirstInvalidPair) {
    unsigned char out[8];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(hex_decode("41zz42", out, 8), 1);
    EXPECT_EQ(std::string(out, out + 3), "A\0x"s);
    EXPECT_EQ(hex_decode("414", out, 8), 1); // the odd last digit is ignored
    EXPECT_EQ(std::string(out, out + 2), "A\0"s);
}

TEST(HexDecode, DecodesEveryByteValue) {
    for (int b = 0; b < 256; ++b) {
        for (const char *digits : {"0123456789abcdef", "0123456789ABCDEF"}) {
            const char in[3] = {digits[b >> 4], digits[b & 15], '\0'};
            unsigned char out[2] = {'x', 'x'};
            ASSERT_EQ(hex_decode(in, out, 2), 1) << in;
            EXPECT_EQ(out[0], b);
            EXPECT_EQ(out[1], '\0');
        }
    }
}

TEST(HexDecode, ReturnsZeroForANullInputOrAnOutsizeBelowTwo) {
    unsigned char out[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(hex_decode(nullptr, out, 4), 0);
    EXPECT_EQ(hex_decode("41", out, 1), 0);
    EXPECT_EQ(hex_decode("41", out, 0), 0);
    // Taken as int, 0x80000000 is negative.
    EXPECT_EQ(hex_decode("41", out, 0x80000000U), 0);
    EXPECT_EQ(std::string(out, out + 4), "xxxx");
}

TEST(HexDecode, EndsALongInputAtAnInvalidDigitInAnyPlace) {
    std::mt19937 generator(79);
    const auto data = random_bytes(generator, long_input / 2);
    std::string digits;
    for (const unsigned char b : data) {
        digits += "0123456789abcdef"[b >> 4];
        digits += "0123456789ABCDEF"[b & 15];
    }
    for (std::size_t k = 0; k <= digits.size(); ++k) {
        for (const char invalid : {'g', 'G', '/', ':', '@', '`', ' ', '\0'}) {
            std::string text = digits;
            if (k < text.size())
                text[k] = invalid;
            const auto in = c_string(text);
            // The pair that holds the invalid digit and those after it are
            // not decoded.
            const std::size_t bytes = k / 2;
            std::vector<unsigned char> out(data.size() + 2, '#');
            ASSERT_EQ(hex_decode(in.data(), out.data(), static_cast<unsigned int>(out.size())),
                      static_cast<int>(bytes))
                << k;
            EXPECT_TRUE(
                std::equal(data.begin(), data.begin() + static_cast<long>(bytes), out.begin()))
                << k;
            EXPECT_EQ(out[bytes], bytes > 0 ? '\0' : '#') << k;
            EXPECT_EQ(out[bytes + 1], '#') << k;
        }
    }
}

TEST(HexDecode, StoresOutsizeLessOneBytesOfALongInputForEverySize) {
    std::mt19937 generator(80);
    const auto data = random_bytes(generator, long_input / 2);
    std::string digits;
    for (const unsigned char b : data) {
        digits += "0123456789abcdef"[b >> 4];
        digits += "0123456789abcdef"[b & 15];
    }
    const auto in = c_string(digits);
    for (std::size_t size = 2; size <= data.size() + 1; ++size) {
        std::vector<unsigned char> out(size + 1, '#');
        ASSERT_EQ(hex_decode(in.data(), out.data(), static_cast<unsigned int>(size)),
                  static_cast<int>(size - 1))
            << size;
        EXPECT_TRUE(
            std::equal(data.begin(), data.begin() + static_cast<long>(size - 1), out.begin()))
            << size;
        EXPECT_EQ(out[size - 1], '\0') << size;
        EXPECT_EQ(out[size], '#') << size;
    }
}

TEST(Hex4Decode, StoresTheValueOfFourDigits) {
    unsigned int value = 7;
    EXPECT_EQ(hex4_decode("00e9", &value), 0);
    EXPECT_EQ(value, 233U);
    EXPECT_EQ(hex4_decode("FfFf", &value), 0);
    EXPECT_EQ(value, 0xFFFFU);
    EXPECT_EQ(hex4_decode("12345", &value), 0); // only four are read
    EXPECT_EQ(value, 0x1234U);
}

TEST(Hex4Decode, LeavesTheValueAloneForANonDigit) {
    unsigned int value = 7;
    EXPECT_EQ(hex4_decode("12G4", &value), -1);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(hex4_decode("123", &value), -1);
    EXPECT_EQ(hex4_decode("", &value), -1);
    EXPECT_EQ(value, 7U);
}

TEST(Hex4Decode, ReadsNoFurtherThanAnEarlyNul) {
    for (std::size_t n = 0; n < 4; ++n) {
        const auto in = c_string(std::string_view("abcd", n));
        unsigned int value = 7;
        EXPECT_EQ(hex4_decode(in.data(), &value), -1);
        EXPECT_EQ(value, 7U);
    }
}

// ---- strbuf_append_b64* ----

struct AppendB64 : ::testing::Test {
    strbuf sb{};
    ~AppendB64() override { strbuf_free(&sb); }
};

TEST_F(AppendB64, CutsThePaddingWithoutPad) {
    EXPECT_EQ(strbuf_append_b64(&sb, "abc", 0), 0);
    EXPECT_EQ(text_of(sb), "YWJj");
    EXPECT_EQ(sb.size, 1023U);
    strbuf_free(&sb);
    EXPECT_EQ(strbuf_append_b64(&sb, "ab", 0), 0);
    EXPECT_EQ(text_of(sb), "YWI");
    EXPECT_EQ(sb.text[3], '\0');
}

TEST_F(AppendB64, KeepsThePaddingWithPad) {
    EXPECT_EQ(strbuf_append_b64(&sb, "ab", 1), 0);
    EXPECT_EQ(text_of(sb), "YWI=");
    EXPECT_EQ(sb.text[4], '\0');
}

TEST_F(AppendB64, AppendsAfterTheText) {
    ASSERT_EQ(strbuf_append(&sb, "Basic "), 0);
    EXPECT_EQ(strbuf_append_b64(&sb, "user:pass", 1), 0);
    EXPECT_EQ(text_of(sb), "Basic dXNlcjpwYXNz");
}

TEST_F(AppendB64, GivesTheRfcVectors) {
    for (const auto &v : rfc_vectors) {
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b64(&sb, v.bytes, 1), 0);
        EXPECT_EQ(sb.text == nullptr ? "" : text_of(sb), v.base64);
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b64(&sb, v.bytes, 0), 0);
        EXPECT_EQ(sb.text == nullptr ? "" : text_of(sb), without_padding(v.base64));
    }
}

TEST_F(AppendB64, AppendsNothingForAnEmptyInput) {
    EXPECT_EQ(strbuf_append_b64(&sb, "", 1), 0);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);
    EXPECT_EQ(strbuf_append_b64n(&sb, "abc", -2, 1), 0);
    EXPECT_EQ(sb.text, nullptr);
}

TEST_F(AppendB64, RefusesNullData) {
    ASSERT_EQ(strbuf_append(&sb, "kept"), 0);
    EXPECT_EQ(strbuf_append_b64(&sb, nullptr, 1), -1);
    EXPECT_EQ(strbuf_append_b64n(&sb, nullptr, 3, 1), -1);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, nullptr, 3, 1, 76), -1);
    EXPECT_EQ(text_of(sb), "kept");
    EXPECT_EQ(sb.size, 1023U);
}

TEST_F(AppendB64, EncodesBinaryDataWithNulBytes) {
    const unsigned char data[] = {0x00, 0xFF, 0x00, 0xFB};
    EXPECT_EQ(strbuf_append_b64n(&sb, data, 4, 1), 0);
    EXPECT_EQ(text_of(sb), "AP8A+w==");
}

TEST_F(AppendB64, GrowsWhenTheRoomIsNotLargerThanTheCapacity) {
    // "ab": three characters and one pad, a capacity of 4.
    ASSERT_EQ(strbuf_append(&sb, std::string(1018, '.').c_str()), 0);
    ASSERT_EQ(sb.size, 1023U);
    EXPECT_EQ(strbuf_append_b64(&sb, "ab", 1), 0);
    EXPECT_EQ(sb.size, 1023U); // a room of 5 is enough
    EXPECT_EQ(text_of(sb), std::string(1018, '.') + "YWI=");

    strbuf_free(&sb);
    ASSERT_EQ(strbuf_append(&sb, std::string(1019, '.').c_str()), 0);
    EXPECT_EQ(strbuf_append_b64(&sb, "ab", 1), 0);
    EXPECT_EQ(sb.size, 2047U); // (4 + 1023 + 1) with the ten low bits set
    EXPECT_EQ(text_of(sb), std::string(1019, '.') + "YWI=");
}

TEST_F(AppendB64, FailsOnMemoryAndLeavesTheBufferAlone) {
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_append_b64(&sb, "abc", 1); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.length, 0U);
    EXPECT_EQ(sb.size, 0U);

    ASSERT_EQ(strbuf_append(&sb, std::string(1020, '.').c_str()), 0);
    const int again = qx_test::call_with_failing_allocation(
        0, [&] { return strbuf_append_b64n_wrap(&sb, "abc", 3, 0, 76); });
    EXPECT_EQ(again, -1);
    EXPECT_EQ(text_of(sb), std::string(1020, '.'));
    EXPECT_EQ(sb.size, 1023U);
}

TEST(CodecAppendSweep, EveryBufferEncoderFailsCleanlyOnEachAllocation) {
    struct encoder {
        const char *name;
        int (*call)(strbuf *);
        const char *expected;
    };
    const encoder encoders[] = {
        {"b64", [](strbuf *sb) { return strbuf_append_b64(sb, "abc", 1); }, "YWJj"},
        {"b64n", [](strbuf *sb) { return strbuf_append_b64n(sb, "ab", 2, 1); }, "YWI="},
        {"b64n_wrap", [](strbuf *sb) { return strbuf_append_b64n_wrap(sb, "abc", 3, 1, 2); },
         "YW\nJj\n"},
        {"b32", [](strbuf *sb) { return strbuf_append_b32(sb, "f", 1); }, "MY======"},
    };
    for (const encoder &e : encoders) {
        const long allocations = qx_test::sweep_allocation_failures([&](long n) {
            strbuf sb{};
            const int result =
                qx_test::call_with_failing_allocation(n, [&] { return e.call(&sb); });
            if (qx_test::allocation_was_failed()) {
                EXPECT_EQ(result, -1) << e.name;
                EXPECT_EQ(sb.text, nullptr) << e.name;
                EXPECT_EQ(sb.length, 0U) << e.name;
                EXPECT_EQ(sb.size, 0U) << e.name;
            } else {
                EXPECT_EQ(result, 0) << e.name;
                EXPECT_EQ(text_of(sb), e.expected) << e.name;
            }
            strbuf_free(&sb);
        });
        EXPECT_EQ(allocations, 1) << e.name; // the one growth from the zero record
    }
}

TEST_F(AppendB64, WrapsWithALineFeedAfterAFullLine) {
    const std::vector<unsigned char> data(57, 0);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, data.data(), 57, 1, 76), 0);
    EXPECT_EQ(text_of(sb), std::string(76, 'A') + "\n");
    EXPECT_EQ(sb.text[77], '\0');
}

TEST_F(AppendB64, WrapsLongerInputIntoSeveralLines) {
    const std::vector<unsigned char> data(60, 0);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, data.data(), 60, 1, 40), 0);
    EXPECT_EQ(text_of(sb), std::string(40, 'A') + "\n" + std::string(40, 'A') + "\n");
}

// Fills the buffer's room with a known byte, so that what a wrapped result
// without padding takes beyond the encoding can be seen.
void prefill(strbuf &sb, char c) {
    ASSERT_EQ(strbuf_append(&sb, std::string(200, c).c_str()), 0);
    ASSERT_EQ(strbuf_setlength(&sb, 0), 0);
}

TEST_F(AppendB64, AddsTheCountedLengthWhenWrappedWithoutPad) {
    // 57 bytes: 76 characters, c' = 76 + 1 + 1 = 78, one beyond the line feed.
    prefill(sb, '#');
    const std::vector<unsigned char> data(57, 0);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, data.data(), 57, 0, 76), 0);
    EXPECT_EQ(sb.length, 78U);
    EXPECT_EQ(text_of(sb), std::string(76, 'A') + "\n#");
    EXPECT_EQ(sb.text[78], '\0');
}

TEST_F(AppendB64, ExtendsAShortWrappedResultWithoutPad) {
    // "abc": four characters and no line feed, c' = 4 + 0 + 1 = 5.
    prefill(sb, '#');
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "abc", 3, 0, 76), 0);
    EXPECT_EQ(text_of(sb), "YWJj#");
    strbuf_free(&sb);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "abc", 3, 1, 76), 0);
    EXPECT_EQ(text_of(sb), "YWJj");
}

TEST_F(AppendB64, CutsAWrappedResultWithoutPadToTheCountedLength) {
    // "a": "YQ==" written, c' = 2 + 0 + 1 = 3.
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "a", 1, 0, 76), 0);
    EXPECT_EQ(text_of(sb), "YQ=");
    EXPECT_EQ(sb.text[3], '\0');
}

TEST_F(AppendB64, GivesEveryLineFeedRoomForVeryShortLines) {
    // "a" in lines of one: eight bytes, more than the counted capacity of 7.
    // With the padding kept they and the NUL must fit, so a room of exactly
    // eight is too small.
    ASSERT_EQ(strbuf_append(&sb, std::string(1015, '.').c_str()), 0);
    ASSERT_EQ(sb.size, 1023U);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "a", 1, 1, 1), 0);
    EXPECT_EQ(sb.size, 2047U);
    EXPECT_EQ(text_of(sb), std::string(1015, '.') + "Y\nQ\n=\n=\n");
    EXPECT_EQ(sb.text[sb.length], '\0');
}

TEST_F(AppendB64, GrowsOnlyWhenTheCountedCapacityDoesNotFitTheRoom) {
    // "a" in lines of one: c = 2, p = 2, c' = 2 + 2 + 1 = 5, so a capacity
    // of 7 against a room of 8. Without the padding the length grows by c'.
    ASSERT_EQ(strbuf_append(&sb, std::string(1015, '.').c_str()), 0);
    ASSERT_EQ(sb.size - sb.length, 8U);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "a", 1, 0, 1), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 1020U);
    EXPECT_EQ(text_of(sb), std::string(1015, '.') + "Y\nQ\n=");
    EXPECT_EQ(sb.text[1020], '\0');

    // "abcd": c = 6, p = 2, c' = 6 + 6 + 1 = 13, a capacity of 15 against a
    // room of 16.
    strbuf_free(&sb);
    ASSERT_EQ(strbuf_append(&sb, std::string(1007, '.').c_str()), 0);
    ASSERT_EQ(sb.size - sb.length, 16U);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "abcd", 4, 0, 1), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(sb.length, 1020U);
    EXPECT_EQ(text_of(sb), std::string(1007, '.') + "Y\nW\nJ\nj\nZ\nA\n=");
    EXPECT_EQ(sb.text[1020], '\0');
}

TEST_F(AppendB64, GrowsWhenTheKeptPaddingAndItsNulWouldPassTheBlock) {
    // "abcd" in lines of one writes sixteen bytes, one more than the
    // capacity of 15; with the padding kept the NUL goes after all of them.
    ASSERT_EQ(strbuf_append(&sb, std::string(1007, '.').c_str()), 0);
    ASSERT_EQ(sb.size - sb.length, 16U);
    EXPECT_EQ(strbuf_append_b64n_wrap(&sb, "abcd", 4, 1, 1), 0);
    EXPECT_EQ(sb.size, 2047U);
    EXPECT_EQ(sb.length, 1023U);
    EXPECT_EQ(text_of(sb), std::string(1007, '.') + "Y\nW\nJ\nj\nZ\nA\n=\n=\n");
    EXPECT_EQ(sb.text[1023], '\0');
}

TEST_F(AppendB64, GrowsByTheCountedCapacityOrForBytesThatWouldPassTheBlock) {
    // Around the room where growth starts, for short inputs and short lines:
    // growth when c' + p is not smaller than the room, or when the bytes
    // written and the NUL after the final length would not fit.
    const std::string input = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (int len = 1; len <= 13; ++len) {
        for (int linelen = 1; linelen <= 9; ++linelen) {
            const auto c = static_cast<std::size_t>((8 * len + 5) / 6);
            const std::size_t p = 4 - c % 4;
            const std::size_t counted = c + c / static_cast<std::size_t>(linelen) + 1;
            char reference[128];
            const int written =
                base64_encode_wrap(reinterpret_cast<const unsigned char *>(input.data()), len,
                                   reference, sizeof reference, linelen);
            ASSERT_GT(written, 0);
            for (int pad = 0; pad <= 1; ++pad) {
                for (std::size_t room = counted + p - 1; room <= counted + p + 2; ++room) {
                    SCOPED_TRACE("len " + std::to_string(len) + ", line " +
                                 std::to_string(linelen) + ", pad " + std::to_string(pad) +
                                 ", room " + std::to_string(room));
                    strbuf_free(&sb);
                    ASSERT_EQ(strbuf_append(&sb, std::string(1023 - room, '.').c_str()), 0);
                    ASSERT_EQ(strbuf_append_b64n_wrap(&sb, input.data(), len, pad, linelen), 0);
                    const std::size_t end = pad != 0 ? static_cast<std::size_t>(written) : counted;
                    const bool grows = counted + p >= room ||
                                       (pad != 0 && static_cast<std::size_t>(written) >= room);
                    EXPECT_EQ(sb.size, grows ? 2047U : 1023U);
                    EXPECT_EQ(sb.length, 1023 - room + end);
                    const std::size_t compared = std::min<std::size_t>(end, written);
                    EXPECT_EQ(std::string(sb.text + 1023 - room, compared),
                              std::string(reference, compared));
                    EXPECT_EQ(sb.text[sb.length], '\0');
                }
            }
        }
    }
}

TEST_F(AppendB64, RoundTripsRandomBytesOfEveryLengthUpTo300) {
    std::mt19937 generator(2045);
    for (std::size_t n = 1; n <= 300; ++n) {
        const auto input = random_bytes(generator, n);
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b64n(&sb, input.data(), static_cast<int>(n), 1), 0);
        ASSERT_EQ(sb.length, (n + 2) / 3 * 4);
        std::vector<unsigned char> output(n);
        ASSERT_EQ(base64_decode(sb.text, output.data(), static_cast<int>(n)), static_cast<int>(n));
        EXPECT_EQ(output, input) << n;
    }
}

// ---- strbuf_append_b32 ----

struct AppendB32 : ::testing::Test {
    strbuf sb{};
    ~AppendB32() override { strbuf_free(&sb); }
};

TEST_F(AppendB32, PadsToAMultipleOfEight) {
    EXPECT_EQ(strbuf_append_b32(&sb, "f", 1), 0);
    EXPECT_EQ(text_of(sb), "MY======");
    strbuf_free(&sb);
    EXPECT_EQ(strbuf_append_b32(&sb, "foobar", 1), 0);
    EXPECT_EQ(text_of(sb), "MZXW6YTBOI======");
    EXPECT_EQ(sb.text[16], '\0');
}

TEST_F(AppendB32, LeavesThePaddingOutWithoutPad) {
    EXPECT_EQ(strbuf_append_b32(&sb, "foobar", 0), 0);
    EXPECT_EQ(text_of(sb), "MZXW6YTBOI");
    EXPECT_EQ(sb.text[10], '\0');
}

TEST_F(AppendB32, GivesTheRfcVectors) {
    for (const auto &v : rfc_vectors) {
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b32(&sb, v.bytes, 1), 0);
        EXPECT_EQ(text_of(sb), v.base32);
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b32(&sb, v.bytes, 0), 0);
        EXPECT_EQ(text_of(sb), without_padding(v.base32));
    }
}

TEST_F(AppendB32, AppendsAfterTheText) {
    ASSERT_EQ(strbuf_append(&sb, "otp:"), 0);
    EXPECT_EQ(strbuf_append_b32(&sb, "fooba", 1), 0);
    EXPECT_EQ(text_of(sb), "otp:MZXW6YTB");
}

TEST_F(AppendB32, RefusesANullString) {
    ASSERT_EQ(strbuf_append(&sb, "kept"), 0);
    EXPECT_EQ(strbuf_append_b32(&sb, nullptr, 1), -1);
    EXPECT_EQ(text_of(sb), "kept");
}

TEST_F(AppendB32, GrowsWhenTheRoomIsNotLargerThanCharactersAndPadding) {
    // "f": two characters and six pads, 8 in all.
    ASSERT_EQ(strbuf_append(&sb, std::string(1014, '.').c_str()), 0);
    EXPECT_EQ(strbuf_append_b32(&sb, "f", 1), 0);
    EXPECT_EQ(sb.size, 1023U);
    EXPECT_EQ(text_of(sb), std::string(1014, '.') + "MY======");

    strbuf_free(&sb);
    ASSERT_EQ(strbuf_append(&sb, std::string(1015, '.').c_str()), 0);
    EXPECT_EQ(strbuf_append_b32(&sb, "f", 1), 0);
    EXPECT_EQ(sb.size, 2047U); // (8 + 1023 + 1) with the ten low bits set
    EXPECT_EQ(text_of(sb), std::string(1015, '.') + "MY======");
}

TEST_F(AppendB32, FailsOnMemoryAndLeavesTheBufferAlone) {
    const int result =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_append_b32(&sb, "f", 1); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sb.text, nullptr);
    EXPECT_EQ(sb.size, 0U);

    ASSERT_EQ(strbuf_append(&sb, std::string(1020, '.').c_str()), 0);
    const int again =
        qx_test::call_with_failing_allocation(0, [&] { return strbuf_append_b32(&sb, "f", 1); });
    EXPECT_EQ(again, -1);
    EXPECT_EQ(text_of(sb), std::string(1020, '.'));
    EXPECT_EQ(sb.size, 1023U);
}

TEST_F(AppendB32, RoundTripsRandomTextOfEveryLengthUpTo300) {
    std::mt19937 generator(3548);
    std::uniform_int_distribution<int> byte(1, 255);
    for (std::size_t n = 0; n <= 300; ++n) {
        std::string input(n, '\0');
        for (auto &c : input)
            c = static_cast<char>(byte(generator));
        strbuf_free(&sb);
        ASSERT_EQ(strbuf_append_b32(&sb, input.c_str(), 1), 0);
        ASSERT_EQ(sb.length % 8, 0U);
        std::vector<unsigned char> output(n + 1);
        ASSERT_EQ(base32_decode(sb.text, output.data(), static_cast<int>(n + 1)),
                  static_cast<int>(n));
        EXPECT_EQ(std::string(output.begin(), output.end() - 1), input);
    }
}

} // namespace
