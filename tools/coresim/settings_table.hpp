// The simulated device's settings: a default value and, for numeric
// settings, the range the command grammar lets through.
#pragma once

#include <span>

enum class SettingKind { text, integer, real };

struct SettingRow {
    const char* key;            // full property key
    const char* default_value;  // what the device reports after a factory reset
    SettingKind kind;
    double min;  // numeric kinds only
    double max;
};

// Settings with a known default or range. Every other key of the property
// name map starts as "0" and takes any text.
std::span<const SettingRow> coresim_settings();

// Camera moves: increment/decrement step toward the limit the request names.
struct CameraStep {
    const char* key;
    int step;
};
std::span<const CameraStep> coresim_camera_steps();
