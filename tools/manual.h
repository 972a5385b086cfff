/* Help made from the table: a manual page for each verb, an overview, the reference page, completion. */
#pragma once

#include "table.h"

#include <string>

namespace tool
{

std::string overview(const command_table &table);
std::string manual_page(const command_table &table, const verb &what);
std::string reference_page(const command_table &table);

/* The script that completes command lines of the tool in SHELL: bash, zsh or fish. */
std::string completion_script(const command_table &table, const std::string &shell);

} // namespace tool
