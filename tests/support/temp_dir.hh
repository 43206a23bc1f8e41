// A folder of its own under the system's temporary folder, removed with what
// it holds at the end of its scope.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace testing_support {

struct temp_dir {
  const std::string path =
      mkdtemp((std::filesystem::temp_directory_path() / "orlo-XXXXXX").string().data());
  ~temp_dir() { std::filesystem::remove_all(path); }
};

}  // namespace testing_support
