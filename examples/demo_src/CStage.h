// Where the demonstration plays: a private runtime directory, and the processes in it.
#ifndef QEL_DEMO_CSTAGE_H
#define QEL_DEMO_CSTAGE_H

#include "CChronicle.h"

#include <memory>
#include <string>
#include <vector>

// However the object goes, its processes are reaped and its directory is removed. One thread.
class CStage {
public:
    // Sets our own environment, which the processes inherit; descriptions: the file with the features' names.
    // Throws std::system_error, like all that makes processes.
    CStage(CChronicle& chronicle, const std::string& descriptions);
    ~CStage();

    // The command is for a shell, without any quotes around it. Stays: until all are asked to end.
    void start(const std::string& name, const std::string& command, bool stays);
    // Asks all to end, once, but the daemon. True when they are gone.
    bool dismiss();
    // Lets the chronicle hear what the processes said meanwhile, and which of them ended, and how; or this.
    void listen();
    void say(const std::string& who, const std::string& what) { m_oChronicle.hear(now(), who, what); }

    int64_t now() const; // milliseconds since the beginning
    std::string file(const std::string& name) const { return m_sDirectory + "/" + name; }
    std::string listPath() const { return file("features.toml"); }
    std::string transcriptPath() const { return m_sDirectory + ".log"; } // outlives the directory

private:
    struct SProcess;

    CChronicle& m_oChronicle;
    std::string m_sDirectory;
    int64_t m_nBegin; // milliseconds since midnight
    std::vector<std::unique_ptr<SProcess>> m_vProcesses;
};

#endif
