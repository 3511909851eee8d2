// What the look-ups of this platform tell the function registered for the DNS library.
#pragma once

constexpr int kDnsError = 3;
constexpr int kDnsDetail = 5;

// Calls the registered function, with no lock held, when the log level lets `level` through.
void TellDnsLog(int level, const char* text);
