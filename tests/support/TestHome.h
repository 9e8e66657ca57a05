#pragma once

#include <string>

namespace kelvo::test {

/// The `KELVO_HOME` of this test process: a fresh directory, removed at the end of the run.
const std::string& home();
std::string library(const std::string& relativePath);
std::string documents(const std::string& relativePath);

/// The content of a file; the empty text when there is none.
std::string contentOf(const std::string& path);
void writeFileForTest(const std::string& path, const std::string& content);

}  // namespace kelvo::test
