#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace NS_CORE {

// An owned byte buffer that grows at both ends, with free room in front of and behind its bytes. For results of system
// calls whose size is not known beforehand, and for payloads. Movable, not copyable; one thread at a time.
//
// New bytes are not initialised, whether they come from construction, reserve or adjust.
//
// Misuse fails a check; where the process goes on, a range error throws std::out_of_range and a lack of memory
// std::bad_alloc, and the buffer is as it was before the call. A size that cannot be counted (more than 2,147,483,647
// bytes of data, more than 4,294,967,295 bytes in all) is a lack of memory.
class GUniqueBuf {
public:
    // Allocates `size` bytes with `headRoom` bytes before and `tailRoom` bytes behind them; nothing if all are 0.
    // A negative size is a lack of memory.
    explicit GUniqueBuf(int32_t size = 0, uint32_t headRoom = 0, uint32_t tailRoom = 0);
    GUniqueBuf(GUniqueBuf&& other) noexcept;            // leaves `other` with nothing allocated
    GUniqueBuf& operator=(GUniqueBuf&& other) noexcept; // likewise
    GUniqueBuf(const GUniqueBuf&) = delete;
    GUniqueBuf& operator=(const GUniqueBuf&) = delete;
    ~GUniqueBuf();

    int32_t size() const { return m_size; }

    // The first of size() bytes; null when nothing is allocated. Valid until the next reserve, adjust or move.
    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }

    uint32_t headRoom() const { return static_cast<uint32_t>(m_data - m_base); }
    uint32_t tailRoom() const { return m_capacity - static_cast<uint32_t>(m_size) - headRoom(); }

    // Makes sure that at least so many free bytes lie before and behind the data. Never shrinks. Keeps the data and the
    // contents of the room that there was.
    void reserve(uint32_t headRoom, uint32_t tailRoom);

    // Moves the front of the data by `deltaFront` bytes and its back by `deltaBack`, outwards where positive, inwards
    // where negative, and grows where the room is not enough. Keeps the bytes in between; bytes given up at an end
    // become room there. With nothing allocated it makes a buffer of `deltaBack` bytes, whatever `deltaFront` says.
    void adjust(int32_t deltaFront, int32_t deltaBack);

    // The byte at `offset`. An offset of size() or more fails a check; one beyond size() then throws, size() itself
    // gives the end of the data. With nothing allocated a check fails and the result is null. Negative offsets are not
    // checked: they reach into the head room, and it is the caller's business to stay within it.
    const uint8_t* dataAt(int32_t offset) const;
    uint8_t* dataAt(int32_t offset) { return const_cast<uint8_t*>(std::as_const(*this).dataAt(offset)); }

    // For messages: "nullptr", "DATA:SIZE", or with room "DATA:SIZE (BASE:HEAD+SIZE+TAIL)", pointers as "0x...".
    std::string toText() const;

private:
    void growAtFront(uint32_t headRoom, uint32_t tailRoom);
    void growAtBack(uint32_t shortfall);

    uint8_t* m_base = nullptr; // owned, from malloc; null exactly where m_data is
    uint32_t m_capacity = 0;
    uint8_t* m_data = nullptr;
    int32_t m_size = 0;
};

} // namespace NS_CORE
