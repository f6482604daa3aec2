// Example lines for every command row, written from the row's help syntax:
// values at both ends of the stated range that the row must accept, and
// values just outside it (or missing) that no row may accept.
#pragma once

#include <span>

struct command_example {
    int category;
    const char* syntax;    // the quoted part of the row's help text
    const char* accepted;  // lines separated by '\n'
    const char* rejected;  // lines separated by '\n'
};

std::span<const command_example> command_examples();
