// The journal's 128-bit ids of kinds of lines, one for each event number.
#ifndef QEL_PLATFORM_LINUX_MESSAGE_ID_H
#define QEL_PLATFORM_LINUX_MESSAGE_ID_H

// The first 24 of an id's 32 hexadecimal digits, drawn once; the other 8 are the event's number, in decimal
// digits. The journal's catalogue is made from this line, and filters of operators go by it: never change it.
inline constexpr char sMessageIdLead[] = "84d2000b04f640ecaf889a41";

#endif
