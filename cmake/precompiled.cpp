// The source file of the targets that build the precompiled headers. A target needs a source file.
