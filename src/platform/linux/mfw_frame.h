// Frames: how a message travels from process to process. A frame is one packet of a SOCK_SEQPACKET socket: a
// header, and the body behind it. A body above 64 KiB travels as a sealed memory file instead
// (memfd_create(2)), whose descriptor goes with the header. So a message of any size arrives whole or not at
// all, sending it does not block, and the kernel's limit of a packet's size does not matter.
//
// The peer is not trusted. A frame is accepted only if every part of it is as it should be, and a memory file
// only if its seals promise that neither its size nor its content can change any more (fcntl(2), F_SEAL_...).
#ifndef QEL_PLATFORM_LINUX_MFW_FRAME_H
#define QEL_PLATFORM_LINUX_MFW_FRAME_H

#include "base/CFileDescriptor.h"
#include "base/big_endian.h"
#include "platform/mfw.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>
#include <vector>

enum { MFW_MAX_INLINE_BODY = 64 * 1024, nMfwMaxBody = 64 * 1024 * 1024 };

struct SMfwFrameHeader {
    enum : uint32_t { MAGIC = 0x514D4631, BODY_INLINE = 0, BODY_IN_FILE = 1 };

    CBigEndian32 m_nMagic; // "QMF1"; whatever else comes is not this protocol
    CBigEndian32 m_nType;  // 16 bits used
    CBigEndian32 m_nUserId;
    CBigEndian32 m_nLength; // bytes of the body
    CBigEndian32 m_nPlace;  // BODY_...
};
static_assert(sizeof(SMfwFrameHeader) == 20);

// Room for one record: with what it holds, as far as that is a usual message; a larger one takes memory.
class CMfwRecord {
public:
    // Room for a body of that many bytes, with anything in it. Throws
    // std::bad_alloc where memory is exhausted.
    void makeRoom(size_t bodySize) {
        if (bodySize > m_nRoom) {
            m_pLarge.reset(new uint8_t[OVU_MFW_DATA_OFFSET + bodySize]);
            m_nRoom = bodySize;
        }
    }
    uint8_t* data() { return m_pLarge != nullptr ? m_pLarge.get() : m_aUsual; }

    CMfwRecord() = default;
    CMfwRecord(const CMfwRecord&) = delete;
    CMfwRecord& operator=(const CMfwRecord&) = delete;

private:
    uint8_t m_aUsual[sizeof(sOvuMfwMessage)];
    std::unique_ptr<uint8_t[]> m_pLarge;
    size_t m_nRoom = OVU_MFW_MIN_DATA;
};

// A message between arrival and delivery. Its body is in m_oBody, or in the file if that is open. Owns both.
struct SMfwMessage {
    uint16_t m_nType = 0;
    uint32_t m_nUserId = 0;
    uint32_t m_nSender = 0; // handle; from the connection, never from the frame
    pid_t m_nProcess = 0;   // the sender's, likewise
    uint32_t m_nLength = 0;
    std::vector<uint8_t> m_oBody;
    CFileDescriptor m_oFile;
    bool m_bTried = false; // there was no memory for its record once

    // Writes the record as a callback reads it (mfw.h): 24 bytes of the framework, the body, and zeros up to
    // the least size. There must be room for it. Memory files are read only now, so that a backlog of them
    // takes no memory of this process. 0 or an error number; the message is then lost.
    [[nodiscard]] int makeRecord(CMfwRecord& record) const;
};

// A message on its way out. Prepared before any lock is taken, since that may copy megabytes; may be sent
// more than once. Borrows the body, which must stay until the last send.
class CMfwOutgoingFrame {
public:
    // Call it once. `length` is at most nMfwMaxBody. 0 or an error number, say EMFILE or ENOMEM of a
    // memory file.
    [[nodiscard]] int prepare(uint16_t type, uint32_t userId, const uint8_t* body, uint32_t length);

    // Sends to a connected socket without blocking. EAGAIN: the peer's queue is full. The frame is sent whole
    // or not at all.
    [[nodiscard]] int send(int socket) const;

    // Bytes of the body, if it travels in a memory file; else 0.
    size_t fileSize() const { return m_oFile ? m_nLength : 0; }

private:
    SMfwFrameHeader m_oHeader;
    const uint8_t* m_pBody = nullptr;
    uint32_t m_nLength = 0;
    CFileDescriptor m_oFile;
};

enum class EMfwReceived {
    Message,
    Dropped, // a message was lost: this process has no descriptor left for its file
    Nothing, // none for now
    Closed,  // the peer is gone, and all that it sent has been read
    Garbage  // not a frame: the connection is of no use any more
};

// The descriptors of a packet: the first, and how many there were. The others are closed.
struct SMfwFiles {
    CFileDescriptor m_oFirst;
    size_t m_nCount = 0;
};

// Reads frames into the one buffer that it holds, of the size of the largest packet. Used by one thread
// at a time.
class CMfwFrameReader {
public:
    // Takes the next frame from a non-blocking socket. If the result is Message, all of `message` but
    // the sender is set; otherwise it is of no use. Where it throws std::bad_alloc, the frame
    // is still in the socket.
    [[nodiscard]] EMfwReceived receive(int socket, SMfwMessage& message);

private:
    EMfwReceived decode(size_t size, SMfwFiles files, SMfwMessage& message);
    void takeBody(size_t size, std::vector<uint8_t>& body) noexcept;

    std::vector<uint8_t> m_oPacket; // empty: the buffer went along with a body, and is made anew
};

#endif
