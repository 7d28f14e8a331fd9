// Loads the module of the signing tools.
#ifndef QEL_TOOLS_LOAD_MODULE_H
#define QEL_TOOLS_LOAD_MODULE_H

struct SModuleEntry {
    void* m_pFunction = nullptr; // null: it could not be loaded
    const char* m_szReason =
        ""; // then: the dynamic linker's words, good until its next failure in this thread
};

// A function of the module by its name (sign_module.h), which is loaded if it is not there yet, and stays.
// Any thread. Only an executable with QEL_MODULE_RUNPATH as its run path finds it.
[[nodiscard]] SModuleEntry moduleEntry(const char* name);

// Gives the pages of the module and of libcrypto back that are as in their files: they are read again when
// they are needed. For a process that goes on after it has used the module for once; any thread.
void restModule();

#endif
