// Giving up the right to read files, for a process that serves what others ask for.
#pragma once

// From here on the process can open files for reading only below these folders, a list joined with ":", and the one
// file (null or empty: none); nothing for writing. What is open stays open. False, and nothing is given up, where the
// kernel has no Landlock (landlock(7), Linux 5.13). For a program of one thread: others would keep their rights.
bool ConfineFiles(const char* folders, const char* file);
