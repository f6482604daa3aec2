#include "settings_table.hpp"

namespace {

using K = SettingKind;

constexpr SettingRange ranges[] = {
    {"audio.speaker-volume", K::integer, 1, 18},
    {"audio.def-speaker-volume", K::integer, 1, 18},
    {"audio.ringer-volume", K::integer, 1, 18},
    {"audio.mute", K::integer, 0, 1},
    {"audio.speaker-mute", K::integer, 0, 1},
    {"audio.all-mic-mute", K::integer, 0, 1},
    {"audio.start-mute", K::integer, 0, 1},
    {"audio.wireless-omni-mic", K::integer, 0, 1},
    {"audio.wireless-direct-mic", K::integer, 0, 1},
    {"audio.wireless-lapel-mic", K::integer, 0, 1},
    {"audio.aux-in", K::integer, 0, 1},
    {"audio.aux-in-level", K::integer, 0, 19},
    {"audio.aux-out", K::integer, 0, 1},
    {"audio.aux-out-level", K::integer, 0, 19},
    {"audio.output-level", K::integer, 0, 1},
    {"audio.auto-mixing", K::integer, 0, 1},
    {"audio.auto-gating", K::integer, 0, 1},
    {"audio.auto-aec", K::integer, 0, 1},
    {"audio.usb-audio", K::integer, 1, 3},
    {"audio.analog-audio-in-mode", K::integer, 0, 1},
    {"audio.analog-audio-in-gain", K::real, -12, 40},
    {"audio.voice-pick-up-angle-left", K::integer, -90, 90},
    {"audio.voice-pick-up-angle-right", K::integer, -90, 90},
    {"audio.beamformer-angle", K::integer, -90, 90},
    {"audio.eq", K::integer, 0, 3},
    {"audio.high-pass-filter", K::integer, 0, 500},
    {"audio.low-pass-filter", K::integer, 0, 24000},
    {"sys.voip-capable", K::integer, 0, 1},
    {"sys.displaylink-capable", K::integer, 0, 1},
    {"sys.enable-btn-camera", K::integer, 0, 1},
    {"sys.enable-btn-audio", K::integer, 0, 1},
    {"sys.enable-btn-volume", K::integer, 0, 1},
    {"sys.enable-btn-bluetooth", K::integer, 0, 1},
    {"sys.enable-led-call", K::integer, 0, 1},
    {"sys.power-saving-mode", K::integer, 0, 1},
    {"sys.snmp-enable", K::integer, 0, 2},
    {"sys.recent-call-enabled", K::integer, 0, 1},
    {"sys.require-http", K::integer, 0, 1},
    {"sys.require-https", K::integer, 0, 1},
    {"sys.web-enabled", K::integer, 0, 1},
    {"sys.dst-enabled", K::integer, 0, 1},
    {"sys.time-zone", K::integer, 0, 32},
    {"sys.auto-deploy", K::integer, 0, 1},
    {"sys.enable-deploy", K::integer, 0, 1},
    {"net.dhcp", K::integer, 0, 1},
    {"net.vlan", K::integer, 0, 2},
    {"net.ntp-enabled", K::integer, 0, 1},
    {"net.dot1x-enabled", K::integer, 0, 1},
    {"display.contrast", K::integer, 0, 19},
    {"display.brightness", K::integer, 0, 19},
    {"display.backlight-time", K::integer, 0, 19},
    {"cam.camera-pan", K::integer, -30, 30},
    {"cam.camera-tilt", K::integer, -18, 18},
    {"cam.camera-zoom", K::integer, 100, 400},
    {"cam.camera-mute", K::integer, 0, 1},
    {"cam.camera-flicker", K::integer, 1, 2},
    {"cam.camera-backlight", K::integer, 0, 5},
    {"cam.camera-brightness", K::integer, 0, 250},
    {"cam.camera-contrast", K::integer, 60, 140},
    {"cam.camera-saturation", K::integer, 50, 150},
    {"cam.camera-sharpness", K::integer, 0, 255},
    {"cam.camera-hue", K::integer, 0, 180},
    {"cam.camera-gamma", K::integer, 1, 255},
    {"bt.bt-enable", K::integer, 0, 1},
    {"bt.nfc-enable", K::integer, 0, 1},
    {"bt.bt-pair-timeout", K::integer, 0, 120},
    {"bt.bt-connect-timeout", K::integer, 0, 604800},
    {"bt.bt-call-autojoin", K::integer, 0, 1},
    {"bt.bt-auto-unpair-on-disconnect", K::integer, 0, 1},
    {"bt.bm64-allow-ipf-upgrade", K::integer, 0, 1},
    {"bt.bm64-allow-fw-upgrade", K::integer, 0, 1},
    {"voip.reg-timeout", K::integer, 1, 6039999},
    {"voip.reg-use-proxy", K::integer, 0, 3},
    {"voip.use-timer", K::integer, 0, 3},
    {"voip.use-100rel", K::integer, 0, 1},
    {"voip.auto-update-nat", K::integer, 0, 1},
    {"voip.use-srtp", K::integer, 0, 2},
    {"voip.udp-tcp-selection", K::integer, 0, 1},
    {"voip.ice-regular", K::integer, 0, 1},
    {"voip.ice-no-rtcp", K::integer, 0, 1},
    {"voip.use-turn", K::integer, 0, 1},
    {"voip.codec1", K::integer, 0, 5},
    {"voip.codec2", K::integer, 0, 5},
    {"voip.codec3", K::integer, 0, 4},
    {"voip.codec4", K::integer, 0, 5},
    {"voip.codec5", K::integer, 0, 5},
    {"voip.auto-answer", K::integer, 0, 699},
    {"voip.mwi", K::integer, 0, 1},
    {"voip.always-forwarding", K::integer, 0, 1},
    {"voip.busy-forwarding", K::integer, 0, 1},
    {"voip.noanswer-forwarding", K::integer, 0, 1},
    {"voip.do-not-disturb", K::integer, 0, 1},
    {"voip.disable-dnd", K::integer, 0, 1},
    {"voip.no-refer-sub", K::integer, 0, 1},
    {"voip.min-size", K::integer, 0, 1},
    {"voip.allow-strict", K::integer, 0, 1},
};

// What this device is and what it is doing when it starts: no help line
// states these.
constexpr DeviceValue device_values[] = {
    {"audio.def-speaker-volume", "9"},
    {"audio.mic-conn-status", "disconnected"},
    {"sys.voip-capable", "1"},
    {"sys.product", "TX-416"},
    {"sys.base-ver", "1.0.0"},
    {"sys.base-sernum", "TX416-000001"},
    {"sys.date-time", "2026-01-01 00:00:00"},
    {"sys.upgrade-status", "idle"},
    {"sys.sys-idle-status", "1"},
    {"net.mac", "00:11:22:33:44:55"},
    {"cam.camera-status", "connected"},
    {"cam.camera-stream", "idle"},
    {"cam.camera-door", "open"},
    {"bt.bt-mac", "00:11:22:33:44:66"},
    {"bt.bt-status", "idle"},
    {"voip.registration", "unregistered"},
};

// One press of cam-pan-left/right, cam-tilt-up/down or cam-zoom-in/out moves
// the camera by this much, never past the limit the request carries.
constexpr CameraStep camera_steps[] = {
    {"cam.camera-pan", 5},
    {"cam.camera-tilt", 3},
    {"cam.camera-zoom", 25},
};

}  // namespace

std::span<const SettingRange> coresim_ranges() {
    return ranges;
}
std::span<const DeviceValue> coresim_device_values() {
    return device_values;
}
std::span<const CameraStep> coresim_camera_steps() {
    return camera_steps;
}
