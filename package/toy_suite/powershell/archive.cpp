#include "package/toy_suite/powershell/archive.h"

#include "package/toy_suite/powershell/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace toy_powershell {
namespace {

[[noreturn]] void refuse(const char* what)
{
    throw std::runtime_error{std::string{"The archive cannot be read: "} + what};
}

// The bits of a deflated stream, lowest bit of each byte first.
class bit_reader {
public:
    explicit bit_reader(std::string_view bytes) : bytes_{bytes} {}

    unsigned take(unsigned count)
    {
        unsigned value = 0;
        for (unsigned i = 0; i != count; ++i, ++position_) {
            if (position_ / 8 >= bytes_.size()) {
                refuse("it ends early");
            }
            value |= ((static_cast<unsigned char>(bytes_[position_ / 8]) >> (position_ % 8)) & 1U) << i;
        }
        return value;
    }

    void skip_to_byte() { position_ = (position_ + 7) / 8 * 8; }

private:
    std::string_view bytes_;
    std::size_t position_ = 0;
};

// A canonical Huffman code, given by the length of each symbol's code word.
class prefix_code {
public:
    explicit prefix_code(const std::vector<unsigned>& lengths)
    {
        for (unsigned length = 1; length != counts_.size(); ++length) {
            for (unsigned symbol = 0; symbol != lengths.size(); ++symbol) {
                if (lengths[symbol] == length) {
                    ++counts_[length];
                    symbols_.push_back(symbol);
                }
            }
        }
    }

    unsigned take_symbol(bit_reader& bits) const
    {
        unsigned word = 0;
        unsigned first_word = 0;
        unsigned symbols_before = 0;
        for (unsigned length = 1; length != counts_.size(); ++length) {
            word |= bits.take(1);
            if (word < first_word + counts_[length]) {
                return symbols_[symbols_before + word - first_word];
            }
            symbols_before += counts_[length];
            first_word = (first_word + counts_[length]) * 2;
            word *= 2;
        }
        refuse("unknown code word");
    }

private:
    std::array<unsigned, 16> counts_{};
    std::vector<unsigned> symbols_;
};

// A symbol names a range of lengths or distances; extra bits give the position in the range.
unsigned take_length(bit_reader& bits, unsigned symbol)
{
    if (symbol == 28) {
        return 258;
    }
    const unsigned extra = symbol < 8 ? 0 : (symbol / 4) - 1;
    return 3 + bits.take(extra) + (symbol < 8 ? symbol : (4 + (symbol % 4)) << extra);
}

unsigned take_distance(bit_reader& bits, unsigned symbol)
{
    const unsigned extra = symbol < 4 ? 0 : (symbol / 2) - 1;
    return 1 + bits.take(extra) + (symbol < 4 ? symbol : (2 + (symbol % 2)) << extra);
}

void inflate_coded(
    bit_reader& bits, const prefix_code& literals, const prefix_code& distances, std::string& to)
{
    for (;;) {
        const unsigned symbol = literals.take_symbol(bits);
        if (symbol == 256) {
            return;
        }
        if (symbol < 256) {
            to += static_cast<char>(symbol);
            continue;
        }
        const unsigned length = take_length(bits, symbol - 257);
        const unsigned distance = take_distance(bits, distances.take_symbol(bits));
        if (distance > to.size()) {
            refuse("a distance goes back too far");
        }
        for (unsigned i = 0; i != length; ++i) {
            to += to[to.size() - distance];
        }
    }
}

void inflate_stored(bit_reader& bits, std::string& to)
{
    bits.skip_to_byte();
    const unsigned size = bits.take(16);
    bits.take(16);
    for (unsigned i = 0; i != size; ++i) {
        to += static_cast<char>(bits.take(8));
    }
}

void inflate_with_fixed_codes(bit_reader& bits, std::string& to)
{
    std::vector<unsigned> lengths(288, 8);
    std::fill(lengths.begin() + 144, lengths.begin() + 256, 9U);
    std::fill(lengths.begin() + 256, lengths.begin() + 280, 7U);
    inflate_coded(bits, prefix_code{lengths}, prefix_code{std::vector<unsigned>(30, 5)}, to);
}

void inflate_with_dynamic_codes(bit_reader& bits, std::string& to)
{
    static constexpr std::array<std::uint8_t, 19> order{
        16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    const unsigned literals = bits.take(5) + 257;
    const unsigned distances = bits.take(5) + 1;
    const unsigned length_count = bits.take(4) + 4;
    std::vector<unsigned> length_lengths(order.size());
    for (unsigned i = 0; i != length_count; ++i) {
        length_lengths[order[i]] = bits.take(3);
    }
    const prefix_code code{length_lengths};
    std::vector<unsigned> lengths;
    while (lengths.size() < literals + distances) {
        const unsigned symbol = code.take_symbol(bits);
        if (symbol < 16) {
            lengths.push_back(symbol);
        } else if (symbol == 16) {
            if (lengths.empty()) {
                refuse("it repeats nothing");
            }
            lengths.insert(lengths.end(), bits.take(2) + 3, unsigned{lengths.back()});
        } else {
            lengths.insert(lengths.end(), symbol == 17 ? bits.take(3) + 3 : bits.take(7) + 11, 0U);
        }
    }
    const auto middle = lengths.begin() + static_cast<std::ptrdiff_t>(literals);
    inflate_coded(bits, prefix_code{{lengths.begin(), middle}}, prefix_code{{middle, lengths.end()}}, to);
}

std::string inflate(std::string_view packed)
{
    bit_reader bits{packed};
    std::string content;
    for (bool last = false; !last;) {
        last = bits.take(1) != 0;
        switch (bits.take(2)) {
        case 0:
            inflate_stored(bits, content);
            break;
        case 1:
            inflate_with_fixed_codes(bits, content);
            break;
        case 2:
            inflate_with_dynamic_codes(bits, content);
            break;
        default:
            refuse("unknown block type");
        }
    }
    return content;
}

// The little-endian number of `size` bytes at `offset`.
std::size_t number_at(std::string_view bytes, std::size_t offset, std::size_t size)
{
    if (bytes.size() < size || offset > bytes.size() - size) {
        refuse("it ends early");
    }
    std::size_t number = 0;
    for (std::size_t i = size; i-- != 0;) {
        number = (number << 8U) | static_cast<unsigned char>(bytes[offset + i]);
    }
    return number;
}

std::string_view part(std::string_view bytes, std::size_t offset, std::size_t size)
{
    if (bytes.size() < size || offset > bytes.size() - size) {
        refuse("it ends early");
    }
    return bytes.substr(offset, size);
}

// The content of the entry that the central directory describes at `record`.
std::string content_of(std::string_view bytes, std::size_t record)
{
    const std::size_t method = number_at(bytes, record + 10, 2);
    const std::size_t packed_size = number_at(bytes, record + 20, 4);
    const std::size_t local = number_at(bytes, record + 42, 4);
    const std::size_t data = local + 30 + number_at(bytes, local + 26, 2) + number_at(bytes, local + 28, 2);
    const std::string_view packed = part(bytes, data, packed_size);
    switch (method) {
    case 0:
        return std::string{packed};
    case 8:
        return inflate(packed);
    default:
        refuse("unknown compression method");
    }
}

} // namespace

std::string read_file(const std::filesystem::path& path)
{
    std::ifstream file{path, std::ios::binary};
    if (!file) {
        throw std::runtime_error{"Could not find file '" + narrow(path.native()) + "'."};
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string read_archive_entry(const std::filesystem::path& archive, const std::string& name)
{
    const std::string bytes = read_file(archive);
    const std::size_t end = bytes.rfind("PK\5\6");
    if (end == std::string::npos) {
        refuse("it has no directory");
    }
    const std::size_t entries = number_at(bytes, end + 10, 2);
    std::size_t record = number_at(bytes, end + 16, 4);
    for (std::size_t i = 0; i != entries; ++i) {
        const std::size_t name_size = number_at(bytes, record + 28, 2);
        if (part(bytes, record + 46, name_size) == name) {
            return content_of(bytes, record);
        }
        record += 46 + name_size + number_at(bytes, record + 30, 2) + number_at(bytes, record + 32, 2);
    }
    refuse("it has no such entry");
}

} // namespace toy_powershell
