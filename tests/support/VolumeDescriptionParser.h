// Reads the text format of volume descriptions (documented in VolumeBuilder.h) into a
// VolumeBuilder.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

class VolumeBuilder;

// Adds every item of the description to the builder. Throws std::runtime_error
// "ORIGIN:LINE: problem" for a line it cannot read.
void parseVolumeDescription(VolumeBuilder& volume, const std::string& text, const std::string& origin);

// The words of one line: blanks separate them, double quotes group them (with \" \\ \n \t
// escapes inside), and a word starting with '#' ends the line.
std::vector<std::string> splitDescriptionLine(const std::string& line);

}  // namespace testsupport
