// Little-endian byte order, the order of every multi-byte field on the wire
// (gateway telegrams, connection messages, trace telegrams). All wire code of
// the library reads and writes its integers through these helpers.
#ifndef KEL_BYTE_ORDER_H
#define KEL_BYTE_ORDER_H

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

// Writes the sizeof(T) little-endian bytes of value to out (no bounds check).
template <typename T>
inline void KelPutLE(void* out, T value)
{
    static_assert(std::is_integral<T>::value, "integers only");
    using U = typename std::make_unsigned<T>::type;
    U bits = static_cast<U>(value);
    unsigned char* p = static_cast<unsigned char*>(out);
    for (std::size_t i = 0; i < sizeof(T); ++i)
    {
        p[i] = static_cast<unsigned char>(bits & 0xFFu);
        bits = static_cast<U>(bits >> 8);
    }
}

// Reads a little-endian T from bytes (no bounds check).
template <typename T>
inline T KelGetLE(const void* bytes)
{
    static_assert(std::is_integral<T>::value, "integers only");
    using U = typename std::make_unsigned<T>::type;
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    U bits = 0;
    for (std::size_t i = sizeof(T); i-- > 0;)
        bits = static_cast<U>((bits << 8) | p[i]);
    return static_cast<T>(bits);
}

// Appends the little-endian bytes of value to a byte container.
template <typename T>
inline void KelAppendLE(std::string& out, T value)
{
    char bytes[sizeof(T)];
    KelPutLE(bytes, value);
    out.append(bytes, sizeof(T));
}

template <typename T>
inline void KelAppendLE(std::vector<char>& out, T value)
{
    char bytes[sizeof(T)];
    KelPutLE(bytes, value);
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

// The little-endian bytes of value as a string.
template <typename T>
inline std::string KelToLE(T value)
{
    std::string bytes(sizeof(T), '\0');
    KelPutLE(&bytes[0], value);
    return bytes;
}

#endif
