// text_file.h: every file that the code under test opens for reading has the same text.
#pragma once

#include <string_view>

// The text is not copied.
void set_file_text(std::string_view text);

// Closes the file if the code under test left it open. Returns whether it did.
bool close_left_file();
