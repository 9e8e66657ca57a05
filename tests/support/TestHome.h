#pragma once

#include <string>

namespace kelvo::test {

/// Returns the `KELVO_HOME` of this test process: a new directory, removed at the end of the run.
const std::string& home();
/// Returns the full path of a file in the Library directory.
std::string library(const std::string& relativePath);
/// Returns the full path of a file in the Documents directory.
std::string documents(const std::string& relativePath);

/// Returns the content of a file, empty if there is none.
std::string contentOf(const std::string& path);
/// Writes a file, and creates its directory if needed.
void writeFileForTest(const std::string& path, const std::string& content);

}  // namespace kelvo::test
