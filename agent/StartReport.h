#ifndef KJP_STARTREPORT_H
#define KJP_STARTREPORT_H

// Prints the outcome of starting a measurement on stderr, unless quiet: 'okText' for code 0,
// otherwise 'failText' with the code.
void reportStartResult(int code, const char* okText, const char* failText);

#endif
