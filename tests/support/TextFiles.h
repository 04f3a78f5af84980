// Whole files and their lines, as the tests read what a stand-in or the
// daemon wrote: an unreadable file reads as empty.
#ifndef TWAMP_TESTS_TEXT_FILES_H
#define TWAMP_TESTS_TEXT_FILES_H

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace twamp_test {

// Every byte of the file at path; "" when it cannot be opened.
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The lines of the file at path without their line ends; none when it cannot be opened.
inline std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace twamp_test

#endif  // TWAMP_TESTS_TEXT_FILES_H
