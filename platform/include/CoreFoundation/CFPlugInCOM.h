#pragma once

#include <CoreFoundation/CFUUID.h>

// Plug-in interface objects. An object's first word points to a table: a reserved word, the three
// functions of every interface, then the interface's other functions. The object decides which
// threads may call them.

using HRESULT = SInt32;  // negative: failed
using ULONG = UInt32;
using LPVOID = void*;
using REFIID = CFUUIDBytes;  // by value

#define SUCCEEDED(result) (static_cast<HRESULT>(result) >= 0)
#define FAILED(result) (static_cast<HRESULT>(result) < 0)

enum : HRESULT {
  S_OK = 0,
  S_FALSE = 1,
  E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFF),
  E_NOTIMPL = static_cast<HRESULT>(0x80000001),
  E_OUTOFMEMORY = static_cast<HRESULT>(0x80000002),
  E_INVALIDARG = static_cast<HRESULT>(0x80000003),
  E_NOINTERFACE = static_cast<HRESULT>(0x80000004),
  E_POINTER = static_cast<HRESULT>(0x80000005),
  E_HANDLE = static_cast<HRESULT>(0x80000006),
  E_ABORT = static_cast<HRESULT>(0x80000007),
  E_FAIL = static_cast<HRESULT>(0x80000008),
  E_ACCESSDENIED = static_cast<HRESULT>(0x80000009),
};

// QueryInterface returns S_OK and stores the interface, with one reference added for the caller, or
// returns E_NOINTERFACE and stores null. AddRef and Release return the new count; the object no
// longer exists when Release returns 0.
#define IUNKNOWN_C_GUTS                                           \
  void* _reserved;                                                \
  HRESULT (*QueryInterface)(void* self, REFIID iid, LPVOID* ppv); \
  ULONG (*AddRef)(void* self);                                    \
  ULONG (*Release)(void* self)

struct IUnknownVTbl {
  IUNKNOWN_C_GUTS;
};

#define IUnknownUUID                                                                               \
  CFUUIDGetConstantUUIDWithBytes(kCFAllocatorDefault, 0, 0, 0, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, \
                                 0, 0x46)
