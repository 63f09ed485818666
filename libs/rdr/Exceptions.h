#pragma once

#include "plat/Exception.h"

namespace rdr {

// A memory stream has no more bytes to give; the SBP packet parser reports a truncated packet.
class EndOfStream : public plat::Exception {
public:
    EndOfStream() : plat::Exception("End of stream") {}
};

// The bytes a reader waits for have not arrived yet. On a rewindable stream the stream is
// back at its checkpoint when this is thrown, so the message can be parsed again from its
// start once more bytes are in.
class BlockException : public plat::Exception {
public:
    BlockException() : plat::Exception("Reading from InStream would block") {}
};

// InStream::readString found a byte count above the caller's maximum.
class StringTooLongException : public plat::Exception {
public:
    StringTooLongException() : plat::Exception("String exceeds maximum length") {}
};

// A MemOutStream with a maximum size cannot take the next item.
class OutStreamFull : public plat::Exception {
public:
    OutStreamFull() : plat::Exception("OutStream full") {}
};

// A state machine that dispatches through state functions found none to run: a broken
// invariant. The CDB reader throws it when it is called without a parse state.
class NullStateException : public plat::Exception {
public:
    NullStateException() : plat::Exception("Null state function called") {}
};

}  // namespace rdr
