// Where the feature description file is. It has a name for each feature
// code; base/CDescriptions.h has its format.
#ifndef QEL_FEATURES_DESCRIPTION_H
#define QEL_FEATURES_DESCRIPTION_H

// The file's path: QEL_DESCRIPTION of the environment, else the one compiled in; empty if neither names one.
// It is determined by the first call and stays the same. From any thread.
const char* descriptionPath();

#endif
