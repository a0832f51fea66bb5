// The translation unit that builds the shared precompiled header; it has no code of its own.
