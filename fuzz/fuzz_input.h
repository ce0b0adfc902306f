// Reads typed values off the fuzzer's bytes; past the end every value is zero.
#ifndef QV_FUZZ_INPUT_H
#define QV_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

struct FuzzInput {
    const uint8_t* data;
    size_t size, pos = 0;

    template <typename T>
    T Take()
    {
        T v{};
        if (pos + sizeof(T) <= size)
            std::memcpy(&v, data + pos, sizeof(T));
        pos += sizeof(T);
        return v;
    }
    // The bytes not yet read.
    const uint8_t* Rest() const { return pos < size ? data + pos : data + size; }
    size_t RestSize() const { return pos < size ? size - pos : 0; }
};

#endif
