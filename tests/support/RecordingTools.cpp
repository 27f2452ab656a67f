#include "RecordingTools.h"

#include <cstdlib>
#include <sstream>

namespace {

// Only what the shell has built in, since PATH may hold no other tool. A call is recorded as the number of
// its arguments, the tool's name and the arguments, each ending in a zero byte.
std::string Script(const std::string& records) {
  return "#!/bin/sh\n"
         "tool='" +
         records +
         "'/${0##*/}\n"
         "printf '%s\\0' \"$#\" \"${0##*/}\" \"$@\" >>'" +
         records +
         "'/calls\n"
         "count=0\n"
         "[ ! -f \"$tool.count\" ] || read -r count <\"$tool.count\"\n"
         "count=$((count + 1))\n"
         "echo $count >\"$tool.count\"\n"
         "[ ! -f \"$tool.$count\" ] || . \"$tool.$count\"\n"
         "exit 0\n";
}

// The next zero-terminated text.
std::string Next(std::istream& records) {
  std::string text;
  std::getline(records, text, '\0');
  return text;
}

}  // namespace

RecordingTools::RecordingTools(const std::vector<std::string>& names) : iFormerPath(std::getenv("PATH")) {
  const std::string script = iRecords.Write("tool", Script(iRecords.Path()));
  std::filesystem::permissions(script, std::filesystem::perms::all);
  for (const std::string& name : names) {
    std::filesystem::create_symlink(script, iTools.Path(name));
  }
  setenv("PATH", (iTools.Path() + ":" + iFormerPath).c_str(), 1);
}

RecordingTools::~RecordingTools() {
  setenv("PATH", iFormerPath.c_str(), 1);
}

void RecordingTools::HideOthers() const {
  setenv("PATH", iTools.Path().c_str(), 1);
}

void RecordingTools::Answer(const std::string& tool, const std::vector<int>& statuses) const {
  std::vector<std::string> scripts;
  for (const int status : statuses) {
    scripts.push_back("exit " + std::to_string(status));
  }
  Run(tool, scripts);
}

void RecordingTools::Run(const std::string& tool, const std::vector<std::string>& scripts) const {
  std::vector<std::filesystem::path> former;
  for (const auto& entry : std::filesystem::directory_iterator(iRecords.Path())) {
    // "umount.2" and "umount.count", but not those of a tool whose name only begins alike.
    if (entry.path().filename().stem() == tool && entry.path().has_extension()) {
      former.push_back(entry.path());
    }
  }
  for (const auto& path : former) {
    std::filesystem::remove(path);
  }
  for (std::size_t n = 0; n < scripts.size(); ++n) {
    iRecords.Write(tool + "." + std::to_string(n + 1), scripts[n] + "\n");
  }
}

void RecordingTools::Remove(const std::string& tool) const {
  std::filesystem::remove(iTools.Path(tool));
}

std::vector<std::string> RecordingTools::Take() const {
  std::istringstream records(ContentOf(iRecords.Path("calls")));
  std::filesystem::remove(iRecords.Path("calls"));
  std::vector<std::string> calls;
  for (std::string count = Next(records); !count.empty(); count = Next(records)) {
    std::string call = Next(records);
    for (int left = std::stoi(count); left > 0; --left) {
      call += "|" + Next(records);
    }
    calls.push_back(call);
  }
  return calls;
}
