#pragma once

#include <cstdint>
#include <string>

namespace NS_CORE {

// An owned byte buffer that grows at both ends, with room kept free in front of and behind its bytes. For results of
// system calls whose size is learnt on the way, and for payloads. Movable, not copyable; one thread at a time.
//
// New bytes are not initialised, whether they come from construction, reserve or adjust.
//
// Misuse fails a check; where the process goes on, a range error throws std::out_of_range and a lack of memory
// std::bad_alloc, and the buffer is as it was before the call. A size that cannot be counted (more than 2,147,483,647
// bytes of data, more than 4,294,967,295 bytes in all) is a lack of memory.
class GUniqueBuf {
public:
    // Allocates `size` bytes with `headRoom` bytes before and `tailRoom` bytes behind them; nothing where all are 0.
    // A negative size is a lack of memory.
    explicit GUniqueBuf(int32_t size = 0, uint32_t headRoom = 0, uint32_t tailRoom = 0);
    GUniqueBuf(GUniqueBuf&& other) noexcept;            // leaves `other` with nothing allocated
    GUniqueBuf& operator=(GUniqueBuf&& other) noexcept; // likewise
    GUniqueBuf(const GUniqueBuf&) = delete;
    GUniqueBuf& operator=(const GUniqueBuf&) = delete;
    ~GUniqueBuf();

    int32_t size() const { return m_size; }

    // The first of size() bytes; null when nothing is allocated. Holds until the next reserve, adjust or move.
    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }

    uint32_t headRoom() const { return static_cast<uint32_t>(m_data - m_base); }
    uint32_t tailRoom() const { return m_capacity - static_cast<uint32_t>(m_size) - headRoom(); }

    // Sees to it that at least so many bytes lie free before and behind the data. Never shrinks; the data, and what is
    // in the room that there was, stay.
    void reserve(uint32_t headRoom, uint32_t tailRoom);

    // Moves the front of the data by `deltaFront` bytes and its back by `deltaBack`, outwards where positive, inwards
    // where negative, and grows where the room is not enough. The bytes in between stay. What is given up at an end
    // becomes room there. With nothing allocated it makes a buffer of `deltaBack` bytes, whatever `deltaFront` says.
    void adjust(int32_t deltaFront, int32_t deltaBack);

    // The byte at `offset`, 0 to size() - 1. Any other offset fails a check and then throws, but for size() itself,
    // where it answers the end of the data; with nothing allocated it fails a check and answers null.
    uint8_t* dataAt(int32_t offset);

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
