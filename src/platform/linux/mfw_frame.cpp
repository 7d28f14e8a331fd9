#include "platform/linux/mfw_frame.h"

#include "platform/linux/errors.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

// All that can be changed about a file's content and size, and the set of seals itself (fcntl(2)).
constexpr int nSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
constexpr size_t nFrameworkBytes = 20; // of a record, before the sender's handle

// A frame carries one descriptor at most. Still there is room for as many as a packet can hold (SCM_MAX_FD is
// 253, see unix(7)), so that all of them are received and closed. The kernel discards what has no room, but
// an emulator in between may leave it open.
union UControl {
    cmsghdr m_oAligned;
    char m_aBytes[CMSG_SPACE(253 * sizeof(int))];
};

// write(2) may write less than it is given, say where memory runs out halfway. The next call then tells why.
int writeWhole(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno != EINTR) {
            return lastError();
        }
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
        }
    }
    return 0;
}

// pread(2), not read(2): a descriptor that was passed shares its file offset with the sender's (unix(7),
// SCM_RIGHTS), and that one stands at the end. A file that is too short cannot come here: isSealed() has
// compared the size.
int readWhole(int fd, uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = pread(fd, data + done, size - done, static_cast<off_t>(done));
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return count == 0 ? EIO : lastError();
        }
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

// Whether the file has this size and will keep its size and its bytes, whatever the peer does. F_GET_SEALS
// fails for files that know no seals. F_SEAL_WRITE cannot be set while a writable shared mapping exists
// (fcntl(2)), so there is no way around it.
bool isSealed(int fd, size_t size) {
    struct stat status {};
    const int seals = fcntl(fd, F_GET_SEALS);
    return seals >= 0 && (seals & nSeals) == nSeals && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
           static_cast<uint64_t>(status.st_size) == size;
}

// Every descriptor gets an owner before anything else is looked at, so none stays open, whatever the frame
// turns out to be. CMSG_DATA need not be aligned for an int (cmsg(3)), hence memcpy.
SMfwFiles takeFiles(msghdr& packet) {
    SMfwFiles files;
    for (cmsghdr* part = CMSG_FIRSTHDR(&packet); part != nullptr; part = CMSG_NXTHDR(&packet, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        // cmsg_len counts the header as well (cmsg(3)).
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
            CFileDescriptor file(fd);
            if (files.m_nCount++ == 0) {
                files.m_oFirst = std::move(file);
            }
        }
    }
    return files;
}

} // namespace

int SMfwMessage::makeRecord(CMfwRecord& record) const {
    uint8_t* start = record.data();
    uint8_t* body = start + OVU_MFW_DATA_OFFSET;
    const CBigEndian32 sender = m_nSender;
    std::memset(start, 0, OVU_MFW_DATA_OFFSET);
    std::memcpy(start + nFrameworkBytes, &sender, sizeof sender);
    if (m_nLength < OVU_MFW_MIN_DATA) {
        std::memset(body + m_nLength, 0, OVU_MFW_MIN_DATA - m_nLength);
    }
    if (m_oFile) {
        return readWhole(m_oFile.get(), body, m_nLength);
    }
    std::copy(m_oBody.begin(), m_oBody.end(), body);
    return 0;
}

int CMfwOutgoingFrame::prepare(uint16_t type, uint32_t userId, const uint8_t* body, uint32_t length) {
    m_oHeader.m_nMagic = SMfwFrameHeader::MAGIC;
    m_oHeader.m_nType = type;
    m_oHeader.m_nUserId = userId;
    m_oHeader.m_nLength = length;
    m_oHeader.m_nPlace = SMfwFrameHeader::BODY_INLINE;
    m_pBody = body;
    m_nLength = length;
    // A packet cannot be larger than the socket's buffer (EMSGSIZE), and every reader keeps room for
    // the largest.
    if (length <= MFW_MAX_INLINE_BODY) {
        return 0;
    }
    m_oHeader.m_nPlace = SMfwFrameHeader::BODY_IN_FILE;
    // The name shows in /proc/<pid>/fd only; it need not be unique (memfd_create(2)).
    m_oFile = CFileDescriptor(memfd_create("qel-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!m_oFile) {
        return lastError();
    }
    if (const int error = writeWhole(m_oFile.get(), body, length)) {
        return error;
    }
    // Sealed after it was written, as F_SEAL_WRITE would forbid that.
    return fcntl(m_oFile.get(), F_ADD_SEALS, nSeals) == 0 ? 0 : lastError();
}

// sendmsg(2) only reads the parts, although iovec is not const. MSG_NOSIGNAL: a peer that is gone is an error
// number, not a SIGPIPE.
int CMfwOutgoingFrame::send(int socket) const {
    iovec parts[] = {{const_cast<SMfwFrameHeader*>(&m_oHeader), sizeof m_oHeader},
                     {const_cast<uint8_t*>(m_pBody), m_oFile ? 0 : m_nLength}};
    msghdr packet{};
    packet.msg_iov = parts;
    packet.msg_iovlen = 2;
    UControl control{};
    if (m_oFile) {
        packet.msg_control = control.m_aBytes;
        packet.msg_controllen = CMSG_SPACE(sizeof(int));
        cmsghdr* part = CMSG_FIRSTHDR(&packet);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        const int fd = m_oFile.get();
        std::memcpy(CMSG_DATA(part), &fd, sizeof fd);
    }
    while (sendmsg(socket, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            return lastError();
        }
    }
    return 0;
}

EMfwReceived CMfwFrameReader::receive(int socket, SMfwMessage& message) {
    if (m_oPacket.empty()) {
        m_oPacket.resize(sizeof(SMfwFrameHeader) + MFW_MAX_INLINE_BODY);
    }
    iovec part{m_oPacket.data(), m_oPacket.size()};
    UControl control;
    msghdr packet{};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    packet.msg_control = control.m_aBytes;
    packet.msg_controllen = sizeof control.m_aBytes;
    ssize_t size = -1;
    // A peer that closes with unread messages of ours makes this fail once with ECONNRESET, ahead of what the
    // peer itself sent before. That can still be read, so the error is passed over.
    do {
        size = recvmsg(socket, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
    if (size < 0) {
        return errno == EAGAIN ? EMfwReceived::Nothing : EMfwReceived::Closed;
    }
    SMfwFiles files = takeFiles(packet);
    // There was a descriptor, but RLIMIT_NOFILE left no room for it (unix(7)). The peer has done nothing
    // wrong, so only the message is lost and not the connection.
    if ((packet.msg_flags & MSG_CTRUNC) != 0 && files.m_nCount == 0) {
        return EMfwReceived::Dropped;
    }
    // An empty packet would look the same, but no frame is empty.
    if (size == 0) {
        return EMfwReceived::Closed;
    }
    // Longer than any frame, or with more descriptors than one.
    if ((packet.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        return EMfwReceived::Garbage;
    }
    return decode(static_cast<size_t>(size), std::move(files), message);
}

// Exactly what the header says, nothing missing and nothing extra: of a frame that differs in any way,
// nothing is used.
EMfwReceived CMfwFrameReader::decode(size_t size, SMfwFiles files, SMfwMessage& message) {
    SMfwFrameHeader header;
    if (size < sizeof header) {
        return EMfwReceived::Garbage;
    }
    std::memcpy(&header, m_oPacket.data(), sizeof header);
    const size_t inlineSize = size - sizeof header;
    // The length is the peer's claim, and a record of that size will be allocated. So it is bounded first.
    if (header.m_nMagic != SMfwFrameHeader::MAGIC || header.m_nType > UINT16_MAX ||
        header.m_nLength > nMfwMaxBody) {
        return EMfwReceived::Garbage;
    }
    message.m_nType = static_cast<uint16_t>(header.m_nType);
    message.m_nUserId = header.m_nUserId;
    message.m_nLength = header.m_nLength;
    if (header.m_nPlace == SMfwFrameHeader::BODY_INLINE && files.m_nCount == 0 &&
        inlineSize == header.m_nLength) {
        takeBody(inlineSize, message.m_oBody);
        return EMfwReceived::Message;
    }
    if (header.m_nPlace == SMfwFrameHeader::BODY_IN_FILE && files.m_nCount == 1 && inlineSize == 0 &&
        isSealed(files.m_oFirst.get(), header.m_nLength)) {
        message.m_oFile = std::move(files.m_oFirst);
        return EMfwReceived::Message;
    }
    return EMfwReceived::Garbage;
}

// A packet cannot be put back, so where there is no memory for a copy of the body, the buffer goes along.
void CMfwFrameReader::takeBody(size_t size, std::vector<uint8_t>& body) noexcept {
    const auto start = m_oPacket.begin() + sizeof(SMfwFrameHeader);
    const auto end = start + static_cast<ptrdiff_t>(size);
    try {
        body.assign(start, end);
    } catch (const std::bad_alloc&) {
        m_oPacket.erase(end, m_oPacket.end());
        m_oPacket.erase(m_oPacket.begin(), m_oPacket.begin() + sizeof(SMfwFrameHeader));
        body = std::move(m_oPacket);
        m_oPacket.clear();
    }
}
