// Frames: how a message travels from process to process. One packet each: a header, and the body behind it. A
// body above 64 KiB travels as a sealed memory file instead, whose descriptor goes with the header; so a
// message of any size arrives whole or not at all, and sending it does not block.
//
// The peer is not trusted: a frame is taken only if all of it is as it must be, and a memory file only if its
// seals say that it will stay as it is.
#ifndef QEL_PLATFORM_LINUX_MFW_FRAME_H
#define QEL_PLATFORM_LINUX_MFW_FRAME_H

#include "base/CFileDescriptor.h"
#include "base/big_endian.h"
#include "platform/mfw.h"

#include <cstddef>
#include <cstdint>
#include <vector>

enum { MFW_MAX_INLINE_BODY = 64 * 1024, MFW_MAX_BODY = 64 * 1024 * 1024 };

struct SMfwFrameHeader {
    enum : uint32_t { MAGIC = 0x514D4631, BODY_INLINE = 0, BODY_IN_FILE = 1 };

    CBigEndian32 m_nMagic;
    CBigEndian32 m_nType; // 16 bits used
    CBigEndian32 m_nUserId;
    CBigEndian32 m_nLength; // bytes of the body
    CBigEndian32 m_nPlace;  // BODY_...
};
static_assert(sizeof(SMfwFrameHeader) == 20);

// Room for one record: with what it holds, as far as that is a usual message; a larger one takes memory.
class CMfwRecord {
public:
    // Room for a body of that many bytes, with anything in it. Throws std::bad_alloc where memory is exhausted.
    uint8_t* makeRoom(size_t bodySize) {
        if (bodySize > OVU_MFW_MIN_DATA) {
            m_oLarge.resize(OVU_MFW_DATA_OFFSET + bodySize);
            m_pStart = m_oLarge.data();
        }
        return m_pStart;
    }
    const uint8_t* data() const { return m_pStart; }

    CMfwRecord() = default;
    CMfwRecord(const CMfwRecord&) = delete;
    CMfwRecord& operator=(const CMfwRecord&) = delete;

private:
    uint8_t m_aUsual[sizeof(sOvuMfwMessage)];
    std::vector<uint8_t> m_oLarge;
    uint8_t* m_pStart = m_aUsual;
};

// A message between its arrival and its delivery. The body is either in m_oBody or in the file.
struct SMfwMessage {
    uint16_t m_nType = 0;
    uint32_t m_nUserId = 0;
    uint32_t m_nSender = 0; // handle
    uint32_t m_nLength = 0;
    std::vector<uint8_t> m_oBody;
    CFileDescriptor m_oFile;

    // The record as a callback reads it: 24 bytes of the framework, the body, and zeros up to the least size.
    // 0 or an error number: memory files are read at this moment only, so that a backlog of them takes no
    // memory.
    [[nodiscard]] int makeRecord(CMfwRecord& record) const;
};

// A message on its way out. Made before any lock is taken; may be sent more than once. Borrows the body.
class CMfwOutgoingFrame {
public:
    // 0 or an error number. `length` is at most MFW_MAX_BODY.
    [[nodiscard]] int prepare(uint16_t type, uint32_t userId, const uint8_t* body, uint32_t length);

    // Sends to a connected socket and does not block. EAGAIN: the peer's queue is full.
    [[nodiscard]] int send(int socket) const;

private:
    SMfwFrameHeader m_oHeader;
    const uint8_t* m_pBody = nullptr;
    uint32_t m_nLength = 0;
    CFileDescriptor m_oFile;
};

enum class EMfwReceived {
    Message,
    Dropped, // one was there, but our own descriptors were used up
    Nothing, // none for now
    Closed,  // the peer is gone, and all that it sent was read
    Garbage  // the peer does not speak as it must
};

// Reads frames; holds the room for one packet.
class CMfwFrameReader {
public:
    CMfwFrameReader() : m_oPacket(sizeof(SMfwFrameHeader) + MFW_MAX_INLINE_BODY) {}

    // Takes the next frame from a non-blocking socket. All but m_nSender is set, where it is a message.
    [[nodiscard]] EMfwReceived receive(int socket, SMfwMessage& message);

private:
    EMfwReceived decode(size_t size, std::vector<CFileDescriptor> files, SMfwMessage& message) const;

    std::vector<uint8_t> m_oPacket;
};

#endif
