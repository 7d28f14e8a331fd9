#include "platform/linux/mfw_frame.h"

#include "platform/linux/errors.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

constexpr int SEALS = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
constexpr size_t FRAMEWORK_BYTES = 20; // of a record, before the sender's handle

// A frame carries one descriptor at most. There is room for as many as a packet can have (unix(7):
// SCM_MAX_FD), so that what is too many is seen and closed: an emulator would keep what we have no room for.
union UControl {
    cmsghdr m_oAligned;
    char m_aBytes[CMSG_SPACE(253 * sizeof(int))];
};

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

// Whether the file has the size and will keep its size and its bytes, whatever the peer does.
bool isSealed(int fd, size_t size) {
    struct stat status {};
    const int seals = fcntl(fd, F_GET_SEALS);
    return seals >= 0 && (seals & SEALS) == SEALS && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
           static_cast<uint64_t>(status.st_size) == size;
}

std::vector<CFileDescriptor> takeFiles(msghdr& packet) {
    std::vector<CFileDescriptor> files;
    for (cmsghdr* part = CMSG_FIRSTHDR(&packet); part != nullptr; part = CMSG_NXTHDR(&packet, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        files.reserve(files.size() + count);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
            files.emplace_back(fd);
        }
    }
    return files;
}

} // namespace

int SMfwMessage::makeRecord(CMfwRecord& record) const {
    uint8_t* start = record.makeRoom(m_nLength);
    uint8_t* body = start + OVU_MFW_DATA_OFFSET;
    const CBigEndian32 sender = m_nSender;
    std::memset(start, 0, OVU_MFW_DATA_OFFSET);
    std::memcpy(start + FRAMEWORK_BYTES, &sender, sizeof sender);
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
    if (length <= MFW_MAX_INLINE_BODY) {
        return 0;
    }
    m_oHeader.m_nPlace = SMfwFrameHeader::BODY_IN_FILE;
    m_oFile = CFileDescriptor(memfd_create("qel-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!m_oFile) {
        return lastError();
    }
    if (const int error = writeWhole(m_oFile.get(), body, length)) {
        return error;
    }
    return fcntl(m_oFile.get(), F_ADD_SEALS, SEALS) == 0 ? 0 : lastError();
}

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
    iovec part{m_oPacket.data(), m_oPacket.size()};
    UControl control;
    msghdr packet{};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    packet.msg_control = control.m_aBytes;
    packet.msg_controllen = sizeof control.m_aBytes;
    ssize_t size = -1;
    // A reset is told once and ahead of what the peer had sent before it went; that can still be read.
    do {
        size = recvmsg(socket, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
    if (size < 0) {
        return errno == EAGAIN ? EMfwReceived::Nothing : EMfwReceived::Closed;
    }
    std::vector<CFileDescriptor> files = takeFiles(packet);
    if ((packet.msg_flags & MSG_CTRUNC) != 0 && files.empty()) {
        return EMfwReceived::Dropped;
    }
    if (size == 0) {
        return EMfwReceived::Closed;
    }
    if ((packet.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        return EMfwReceived::Garbage;
    }
    return decode(static_cast<size_t>(size), std::move(files), message);
}

EMfwReceived CMfwFrameReader::decode(size_t size, std::vector<CFileDescriptor> files,
                                     SMfwMessage& message) const {
    SMfwFrameHeader header;
    if (size < sizeof header) {
        return EMfwReceived::Garbage;
    }
    std::memcpy(&header, m_oPacket.data(), sizeof header);
    const size_t inlineSize = size - sizeof header;
    if (header.m_nMagic != SMfwFrameHeader::MAGIC || header.m_nType > UINT16_MAX ||
        header.m_nLength > MFW_MAX_BODY) {
        return EMfwReceived::Garbage;
    }
    message.m_nType = static_cast<uint16_t>(header.m_nType);
    message.m_nUserId = header.m_nUserId;
    message.m_nLength = header.m_nLength;
    if (header.m_nPlace == SMfwFrameHeader::BODY_INLINE && files.empty() && inlineSize == header.m_nLength) {
        const uint8_t* body = m_oPacket.data() + sizeof header;
        message.m_oBody.assign(body, body + inlineSize);
        return EMfwReceived::Message;
    }
    if (header.m_nPlace == SMfwFrameHeader::BODY_IN_FILE && files.size() == 1 && inlineSize == 0 &&
        isSealed(files[0].get(), header.m_nLength)) {
        message.m_oFile = std::move(files[0]);
        return EMfwReceived::Message;
    }
    return EMfwReceived::Garbage;
}
