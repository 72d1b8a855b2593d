// getopt(3) by the POSIX rule: parsing stops at the first operand, arguments keep their order.
// glibc needs to be told so; other C libraries do it anyway.
#pragma once

// As getopt, with its globals (optarg, optind, opterr) and its diagnostics on standard error.
// options is at most 30 characters long.
int posixGetopt(int count, char* const arguments[], const char* options);
