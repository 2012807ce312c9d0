// Hooks of the Linux stand-in that only tests use; the product never includes
// this header.
#pragma once

// How many payloads CNorvMsg::FreeSignal has released in this process so far.
// A test reads it before and after an operation to prove that a payload was
// released exactly once.
unsigned long NorvMsgFreedPayloads();
