// standard_descriptors.h - the descriptors 0 to 2 belong to standard input, output and error.
#ifndef ZONFLOW_STANDARD_DESCRIPTORS_H
#define ZONFLOW_STANDARD_DESCRIPTORS_H

namespace zonflow {

// To be called before anything is opened. A shell may have closed some of the three; a file or a
// socket that took such a number would be read as the input, or be written to as the output. What
// takes the place stays unusable: reading and writing fail as they do on a closed descriptor.
void keep_standard_descriptors();

}  // namespace zonflow

#endif
