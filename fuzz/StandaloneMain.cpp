// Runs a target over files and folders without a fuzzer: each file of a folder, and nothing below it, is one input.
//
//     corpus_queue fuzz/corpus/queue
//     corpus_queue one-file another-file
//
// Fails when a folder is missing, holds no file or something that is no file, and when not every input was run.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "common/Input.h"

namespace {

namespace fs = std::filesystem;

/// The inputs that an argument names; absent, with a message, when it names none.
bool addInputs(const fs::path& path, std::vector<fs::path>& inputs) {
  std::error_code error;
  const std::size_t before = inputs.size();
  if (fs::is_directory(path, error)) {
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      if (!entry.is_regular_file()) {
        std::fprintf(stderr, "%s is no file\n", entry.path().c_str());
        return false;
      }
      inputs.push_back(entry.path());
    }
  } else if (fs::is_regular_file(path, error)) {
    inputs.push_back(path);
  }
  if (inputs.size() == before) std::fprintf(stderr, "%s: there is no input\n", path.c_str());
  return inputs.size() > before;
}

bool runInput(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::error_code error;
  if (file.bad() || bytes.size() != fs::file_size(path, error) || error) {
    std::fprintf(stderr, "%s cannot be read\n", path.c_str());
    return false;
  }
  // A copy of exactly the input's size, so that a sanitizer sees a read beyond it.
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  std::fprintf(stderr, "%s\n", path.c_str());
  return LLVMFuzzerTestOneInput(input.data(), input.size()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> inputs;
  for (const char* const argument : std::span(argv, static_cast<std::size_t>(argc)).subspan(1))
    if (!addInputs(argument, inputs)) return 1;
  std::size_t ran = 0;
  for (const fs::path& input : inputs)
    if (runInput(input)) ++ran;
  std::fprintf(stderr, "%zu of %zu inputs were run\n", ran, inputs.size());
  return ran > 0 && ran == inputs.size() ? 0 : 1;
}
