// Symbol visibility for the plug-in and the host framework.
//
// The plug-in is built with hidden visibility by default. NOX_EXPORT marks the
// few symbols the host looks up in libucore_nox.so (the registration entry,
// the comparison objects, IMPORT_CERT_MARK and the text functions).
// HOST_API marks host framework types: their type information must be one and
// the same on both sides of the library boundary, so that exceptions thrown
// in one library are caught in the other and dynamic_cast works across it.
#ifndef NOX_INCLUDE_NOX_VISIBILITY_H_
#define NOX_INCLUDE_NOX_VISIBILITY_H_

#define NOX_EXPORT __attribute__((visibility("default")))
#define HOST_API __attribute__((visibility("default")))

#endif  // NOX_INCLUDE_NOX_VISIBILITY_H_
