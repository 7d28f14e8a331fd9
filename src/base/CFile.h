// Owns one standard I/O stream (stdio(3)) and remembers its path.
#ifndef QEL_BASE_CFILE_H
#define QEL_BASE_CFILE_H

#include <cstdint>
#include <cstdio>
#include <memory>

// All operations report success as 1 and failure as 0, unless they say otherwise. None throws or logs: the
// caller decides what a failure means. An operation on a closed file fails and changes nothing.
//
// Files that are open for both directions follow fopen(3): a seek() must stand between a read and the write
// that follows it. Not for use by several threads at a time.
class CFile {
public:
    // Open modes; any other number appends. All but nReadOnly can read as well as write.
    static constexpr int nReadOnly = 0;  // -1 means the same
    static constexpr int nWrite = 1;     // creates the file, or empties it
    static constexpr int nReadWrite = 2; // fails where there is no file
    static constexpr int nAppend = 3;    // creates the file if need be; every write goes to its end

    // The `text` argument. It makes no difference on POSIX systems, see fopen(3).
    static constexpr int nBinary = 0;
    static constexpr int nText = 1;

    CFile() = default;
    CFile(const char* path, int mode, int text);
    virtual ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // Closes the file that is open first. If that one cannot be flushed, it stays open and the result is 0.
    // The new file is positioned at its start, and buffered.
    int open(const char* path, int mode, int text);
    int isOpen() const;
    // Fails, and leaves the file open, if what was written cannot be flushed.
    int close();
    // Closes and deletes the file; fails for one that is open for reading only. A file that cannot be deleted
    // is opened again with the result 0, which empties it unless it was open for appending.
    int remove();

    // In bytes: the size at opening, plus whatever write() wrote since, also where it wrote over older
    // contents. Growth by other writers is not seen. UINT32_MAX for a size of 4 GiB or more; 0 for a closed
    // file, and for what has no size.
    uint32_t size() const;
    long getPosition() const; // in bytes from the start; 0 for a closed file, -1 where ftell(3) fails
    int seek(long offset, int whence); // whence: as for fseek(3)
    int seekEnd();

    // Reads a line of at most `size` - 1 characters including its line break, as fgets(3) does. Fails where
    // `size` leaves no room for any.
    int gets(char* buffer, uint32_t size);
    // Reads at most up to size(). Returns the number of bytes; 0 at the end and on failure.
    uint32_t read(char* buffer, uint32_t size);
    // Writes and flushes. Returns the number of bytes that reached the file: fewer than `size` on a full
    // disk, for example. The rest is lost, and no later call tries to write it again.
    uint32_t write(const char* buffer, uint32_t size);

    // Non-zero: full buffering with 4096 bytes, a size that the C library may treat as a hint (setvbuf(3));
    // 0: none. Beware of the result, which is the inverse of the others: 1 when the library refuses, 0 when
    // it agrees or the file is closed.
    int setBufferingMode(int on);

    // In seconds since the epoch: st_ctime and st_mtime of stat(2). 0 where there is no such file.
    static long getCreationTime(const char* path);
    static long getModificationTime(const char* path);

private:
    // In this order: whatever is stAppend or above can be written.
    enum EState : int32_t {
        stClosed = -2,
        stReadOnly = -1,
        stAppend = 0,
        stWrite = 1 // also for nReadWrite
    };

    // Opens the path under which the object stands. On failure the object is closed.
    int openStream(EState state, bool keepsContents);
    bool isWritable() const { return m_eState >= stAppend; }
    void forget();

    FILE* m_pStream = nullptr;
    std::unique_ptr<char[]> m_szPath;
    uint32_t m_nSize = 0;
    EState m_eState = stClosed;
    int m_nText = nBinary;
};

#endif
