// The feature description file: a name for each feature code. One feature a line, "code,name";
// docs/feature-list.md tells the format to operators.
#ifndef QEL_FEATURES_DESCRIPTION_H
#define QEL_FEATURES_DESCRIPTION_H

// The file's path: QEL_DESCRIPTION in the environment, else the one compiled in. Empty where none is
// configured.
const char* descriptionPath();

#endif
