#pragma once

#include <CoreServices/CoreServices.h>

// The constants on which the greeter and its clients have agreed. Any thread.

constexpr char kGreeterPort[] = "com.example.greeter";
constexpr char kGreeterBundle[] = "com.example.greeter.app";
constexpr char kGreeterPreferences[] = "com.example.greeter";  // key "greeting": a string
constexpr OSType kGreeterSignature = FourCC('G', 'r', 't', 'r');

constexpr UInt32 kGreeterClass = FourCC('G', 'r', 't', 'r');
constexpr UInt32 kGreetEvent = FourCC('g', 'r', 'e', 't');  // name: utf8 -> greeting: utf8
constexpr UInt32 kCountEvent = FourCC('c', 'o', 'u', 'n');  // nothing -> greetings so far: long
constexpr AEKeyword kNameKey = FourCC('n', 'a', 'm', 'e');
