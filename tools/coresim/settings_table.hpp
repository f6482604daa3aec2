// The simulated device's settings. What a setting starts with comes from the
// command table's help lines (tx::grammar::stated_default); these tables add
// what the device itself is, and the ranges of numeric settings.
#pragma once

#include <span>

enum class SettingKind { integer, real };

// A numeric setting and the range the command grammar lets through.
struct SettingRange {
    const char* key;  // full property key
    SettingKind kind;
    double min;
    double max;
};
std::span<const SettingRange> coresim_ranges();

// A starting value that no help line states (the product, its serial
// number, what is connected). Every other key starts as its help states, or
// as "0".
struct DeviceValue {
    const char* key;
    const char* value;
};
std::span<const DeviceValue> coresim_device_values();

// Camera moves: increment/decrement step toward the limit the request names.
struct CameraStep {
    const char* key;
    int step;
};
std::span<const CameraStep> coresim_camera_steps();
