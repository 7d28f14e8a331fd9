// A thin owner of one standard I/O stream with its path.
#ifndef QEL_BASE_CFILE_H
#define QEL_BASE_CFILE_H

#include <cstdint>
#include <cstdio>
#include <memory>

// Reports success as 1 and failure as 0, and does not throw. Not for use by several threads at a time.
class CFile {
public:
    // Open modes; any other number appends.
    static constexpr int nReadOnly = 0; // -1 means the same
    static constexpr int nWrite = 1;    // empties the file
    static constexpr int nReadWrite = 2;
    static constexpr int nAppend = 3;

    // The `text` argument.
    static constexpr int nBinary = 0;
    static constexpr int nText = 1;

    CFile() = default;
    CFile(const char* path, int mode, int text);
    virtual ~CFile();
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // Closes what is open first; if that cannot be flushed, it stays open and the result is 0.
    int open(const char* path, int mode, int text);
    int isOpen() const;
    int close();
    // Closes and deletes the file. Where it cannot be deleted it is opened again, which empties it unless it
    // is open for appending, and the result is 0.
    int remove();

    // Bytes, as known at opening and advanced by write(): growth by other writers is not seen.
    uint32_t size() const;
    long getPosition() const;
    int seek(long offset, int whence); // whence: as for fseek(3)
    int seekEnd();

    // Reads a line of at most `size` - 1 characters, its line break included, as fgets(3) does.
    int gets(char* buffer, uint32_t size);
    // Reads at most up to the size known; returns the number of bytes.
    uint32_t read(char* buffer, uint32_t size);
    // Writes and flushes; returns the number of bytes written.
    uint32_t write(const char* buffer, uint32_t size);

    // Non-zero: full buffering with 4096 bytes; 0: none. The result is the wrong way round, and stays so: 1
    // when the library refuses, 0 when it agrees (and when closed).
    int setBufferingMode(int on);

    // Seconds since the epoch: last change of the status, last change of the contents. 0 where there is no
    // such file.
    static long getCreationTime(const char* path);
    static long getModificationTime(const char* path);

private:
    enum EState : int32_t {
        stClosed = -2,
        stReadOnly = -1,
        stAppend = 0,
        stWrite = 1 // or read and write
    };

    bool isWritable() const { return m_eState >= stAppend; }
    void forget();

    FILE* m_pStream = nullptr;
    std::unique_ptr<char[]> m_szPath;
    uint32_t m_nSize = 0;
    EState m_eState = stClosed;
    int m_nText = nBinary;
};

#endif
