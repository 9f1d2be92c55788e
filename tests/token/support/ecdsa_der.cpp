// A writer and a reader for the only structure that both sides exchange.

#include "ecdsa_der.h"

#include <algorithm>
#include <stdexcept>

namespace NV::test {

namespace {

constexpr unsigned char sequenceTag = 0x30;
constexpr unsigned char integerTag = 0x02;

// Of up to 255 bytes, which is enough for P-521.
void append(Bytes& der, unsigned char tag, const Bytes& content)
{
    der.push_back(tag);
    if (content.size() > 255)
        throw std::runtime_error("too long for this writer");
    if (content.size() > 127)
        der.push_back(0x81);
    der.push_back(static_cast<unsigned char>(content.size()));
    der.insert(der.end(), content.begin(), content.end());
}

// As short as possible, and not negative.
Bytes integer(Bytes::const_iterator begin, Bytes::const_iterator end)
{
    begin = std::find_if(begin, end, [](unsigned char byte) { return byte != 0; });
    Bytes content;
    if (begin == end || *begin > 127)
        content.push_back(0);
    content.insert(content.end(), begin, end);
    return content;
}

class Reader {
public:
    explicit Reader(const Bytes& der) : position_(der.begin()), end_(der.end()) {}

    Bytes content(unsigned char tag)
    {
        if (byte() != tag)
            throw std::runtime_error("unexpected tag in a signature");
        size_t size = byte();
        if (size == 0x81)
            size = byte();
        else if (size > 127)
            throw std::runtime_error("unexpected length in a signature");
        if (size > static_cast<size_t>(end_ - position_))
            throw std::runtime_error("a signature ends too early");
        const auto begin = position_;
        position_ += static_cast<ptrdiff_t>(size);
        return {begin, position_};
    }

    void expectEnd() const
    {
        if (position_ != end_)
            throw std::runtime_error("a signature goes on behind its end");
    }

private:
    unsigned char byte()
    {
        if (position_ == end_)
            throw std::runtime_error("a signature ends too early");
        return *position_++;
    }

    Bytes::const_iterator position_;
    Bytes::const_iterator end_;
};

void appendFixed(Bytes& raw, const Bytes& content, size_t size)
{
    const Bytes number(
        std::find_if(content.begin(), content.end(), [](unsigned char byte) { return byte != 0; }),
        content.end());
    if (number.size() > size)
        throw std::runtime_error("a number of a signature is too large for the curve");
    raw.resize(raw.size() + size - number.size());
    raw.insert(raw.end(), number.begin(), number.end());
}

}  // namespace

Bytes derFromRaw(const Bytes& raw)
{
    const auto middle = raw.begin() + static_cast<ptrdiff_t>(raw.size() / 2);
    Bytes numbers;
    append(numbers, integerTag, integer(raw.begin(), middle));
    append(numbers, integerTag, integer(middle, raw.end()));
    Bytes der;
    append(der, sequenceTag, numbers);
    return der;
}

Bytes rawFromDer(const Bytes& der, size_t coordinateSize)
{
    Reader outer(der);
    const Bytes numbers = outer.content(sequenceTag);
    outer.expectEnd();
    Reader inner(numbers);
    Bytes raw;
    appendFixed(raw, inner.content(integerTag), coordinateSize);
    appendFixed(raw, inner.content(integerTag), coordinateSize);
    inner.expectEnd();
    return raw;
}

}  // namespace NV::test
