// Alphabets of the text codecs and the lookup tables derived from them at
// compile time, shared by the Base32/Base64/hex codecs, the escaping
// functions and the modified UTF-7 encoder.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qx::detail {

inline constexpr std::string_view base32_alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

// The sixty-fifth character is the pad.
inline constexpr std::string_view base64_alphabet_and_pad =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
inline constexpr std::string_view base64_alphabet{base64_alphabet_and_pad.data(), 64};
inline constexpr char base64_pad = base64_alphabet_and_pad[64];

inline constexpr std::string_view hex_digits_upper = "0123456789ABCDEF";
inline constexpr std::string_view hex_digits_lower = "0123456789abcdef";

// Marks a byte that has no value in a reverse table.
inline constexpr std::uint8_t no_value = 0xFF;

// Byte -> index in an alphabet, or no_value.
using reverse_table = std::array<std::uint8_t, 256>;

constexpr bool is_upper_ascii(char c) noexcept {
    return c >= 'A' && c <= 'Z';
}

constexpr char to_lower_ascii(char c) noexcept {
    return is_upper_ascii(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr reverse_table make_reverse_table(std::string_view alphabet,
                                           bool letters_in_either_case = false) noexcept {
    reverse_table table{};
    table.fill(no_value);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        const auto value = static_cast<std::uint8_t>(i);
        table[static_cast<unsigned char>(alphabet[i])] = value;
        if (letters_in_either_case)
            table[static_cast<unsigned char>(to_lower_ascii(alphabet[i]))] = value;
    }
    return table;
}

// Hex digits in either case -> 0..15.
inline constexpr reverse_table hex_values = make_reverse_table(hex_digits_upper, true);

constexpr std::uint8_t hex_value(char c) noexcept {
    return hex_values[static_cast<unsigned char>(c)];
}

// A 64-character alphabet with one character exchanged, for Base64 variants.
using alphabet64 = std::array<char, 64>;

constexpr alphabet64 base64_variant(char replaced, char replacement) noexcept {
    alphabet64 out{};
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = base64_alphabet[i] == replaced ? replacement : base64_alphabet[i];
    return out;
}

// Writes the characters of one group of one to three bytes, most significant
// bits first, the last character's free bits filled with zeros: one byte
// gives two characters, two give three, three give four. Returns how many
// characters were given to emit; padding is the caller's business.
template <typename Alphabet, typename Emit>
constexpr int encode_base64_group(const Alphabet &alphabet, const unsigned char *group,
                                  std::size_t n, Emit &&emit) {
    const std::uint32_t bits = (std::uint32_t{group[0]} << 16) |
                               (n > 1 ? std::uint32_t{group[1]} << 8 : 0U) |
                               (n > 2 ? std::uint32_t{group[2]} : 0U);
    const int characters = static_cast<int>(n) + 1;
    for (int i = 0; i < characters; ++i)
        emit(alphabet[(bits >> (18 - 6 * i)) & 0x3FU]);
    return characters;
}

// The characters that URL encoding leaves as they are: letters, digits and
// "-._~" (the unreserved set of URIs).
constexpr std::array<bool, 256> make_unreserved_table() noexcept {
    std::array<bool, 256> table{};
    for (const std::string_view chars :
         {std::string_view{base64_alphabet.data(), 62}, std::string_view{"-._~"}})
        for (const char c : chars)
            table[static_cast<unsigned char>(c)] = true;
    return table;
}

inline constexpr std::array<bool, 256> url_unreserved = make_unreserved_table();

// "%" and the two lower-case hex digits of every byte, and a fourth byte so
// that one four-byte store writes them.
using percent_form = std::array<char, 4>;

constexpr std::array<percent_form, 256> make_percent_forms() noexcept {
    std::array<percent_form, 256> forms{};
    for (std::size_t c = 0; c < forms.size(); ++c)
        forms[c] = {'%', hex_digits_lower[c >> 4], hex_digits_lower[c & 0x0FU], '\0'};
    return forms;
}

inline constexpr std::array<percent_form, 256> percent_forms = make_percent_forms();

// One byte of the percent encoding at o; returns the new end.
inline char *percent_encode_byte(unsigned char c, char *o) noexcept {
    if (url_unreserved[c]) {
        *o = static_cast<char>(c);
        return o + 1;
    }
    // The fourth byte lands where the next output (or the final NUL) goes.
    std::memcpy(o, percent_forms[c].data(), 4);
    return o + 3;
}

} // namespace qx::detail
