// nkr firmware: write a firmware image to a unit over USB or Bluetooth, then
// check that the unit comes back with a new version.
#include <NKR_focuser.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "interrupt.h"
#include "output.h"
#include "session.h"
#include "unit_info.h"

namespace nkrtool {
namespace {

struct FirmwareOptions {
    std::string id, image;
    int restartSeconds = 15;
};

constexpr size_t kUsbBlock = sizeof(_NKR_HID_FILE_BUF::buf);   // 55
constexpr size_t kBleBlock = sizeof(_NKR_BLE_FILE_BUF::data);  // 480
constexpr size_t kMaxImageBytes = 16u << 20;

std::vector<unsigned char> readImage(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) usageError("cannot read the firmware image '" + path + "'");
    std::vector<unsigned char> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (image.empty()) usageError("the firmware image '" + path + "' is empty");
    if (image.size() > kMaxImageBytes)
        usageError("the firmware image '" + path + "' is larger than 16 MiB; is it the right file?");
    return image;
}

// A failure after the unit entered update mode leaves it there.
[[noreturn]] void failWriting(int code, size_t offset)
{
    throw ToolError("writing the image failed at byte " + std::to_string(offset) + ": " +
                        formatErrorCode(code) +
                        "; the unit stays in update mode, run the update again",
                    code, kExitDeviceError);
}

void showProgress(ProgressBar& bar, size_t done, size_t total)
{
    bar.update(static_cast<double>(done) / static_cast<double>(total),
               std::to_string(done) + " of " + std::to_string(total) + " bytes");
}

void writeOverUsb(int id, const std::vector<unsigned char>& image)
{
    int rc = NKRHidStartUpdate(id);
    if (rc == NKR_ERROR_NOT_SUPPORTED)
        throw ToolError("this unit cannot be updated over USB (firmware 3.7.0 or later is needed): " +
                            formatErrorCode(rc),
                        rc, kExitDeviceError);
    check(rc, "starting the USB firmware update");
    ProgressBar bar;
    for (size_t offset = 0; offset < image.size(); offset += kUsbBlock) {
        if (interrupted()) failWriting(NKR_ERROR_GENERAL, offset);
        _NKR_HID_FILE_BUF block{};
        block.len = static_cast<int>(std::min(kUsbBlock, image.size() - offset));
        std::memcpy(block.buf, image.data() + offset, static_cast<size_t>(block.len));
        rc = NKRHidWriteUpdateFile(id, block);
        if (rc != NKR_SUCCESS) failWriting(rc, offset);
        showProgress(bar, offset + static_cast<size_t>(block.len), image.size());
    }
    bar.finish();
    check(NKRHidEndUpdate(id), "ending the USB firmware update");
}

void writeOverBle(int id, const std::vector<unsigned char>& image)
{
    int rc = NKRBLEStartUpdate(id, static_cast<int>(image.size()));
    if (rc == NKR_ERROR_NOT_SUPPORTED)
        throw ToolError("this unit cannot be updated over Bluetooth (firmware after 3.8.1 is needed): " +
                            formatErrorCode(rc),
                        rc, kExitDeviceError);
    check(rc, "starting the Bluetooth firmware update");
    ProgressBar bar;
    for (size_t offset = 0; offset < image.size(); offset += kBleBlock) {
        if (interrupted()) failWriting(NKR_ERROR_GENERAL, offset);
        _NKR_BLE_FILE_BUF block{};
        block.length = static_cast<int>(std::min(kBleBlock, image.size() - offset));
        std::memcpy(block.data, image.data() + offset, static_cast<size_t>(block.length));
        rc = NKRBLEWriteUpdateFile(id, block);
        if (rc != NKR_SUCCESS) failWriting(rc, offset);
        showProgress(bar, offset + static_cast<size_t>(block.length), image.size());
    }
    bar.finish();
}

int runFirmware(const FirmwareOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.image});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (args.empty()) usageError("missing IMAGE (the firmware file to write)");
    if (args.size() > 1) usageError("unexpected argument '" + args[1] + "'");
    std::vector<unsigned char> image = readImage(args.front());

    UnitSession unit(target);
    Firmware before = readFirmware(unit.id());
    check(before.code, "reading the firmware version");
    say("Writing " + std::to_string(image.size()) + " bytes to " + unit.label() + " (firmware " +
        before.text() + ") over " + (unit.isBle() ? "Bluetooth; keep it switched on and near." : "USB; do not unplug it."));

    if (unit.isBle())
        writeOverBle(unit.id(), image);
    else
        writeOverUsb(unit.id(), image);

    say("Image written; waiting for the unit to restart...");
    unit.reopen(options.restartSeconds);
    Firmware after = readFirmware(unit.id());
    check(after.code, "reading the firmware version after the update");
    bool changed = after.number() != before.number();

    if (jsonMode())
        emitJson(Json::object()
                     .set("id", unit.id())
                     .set("link", unit.isBle() ? "ble" : "usb")
                     .set("bytes", static_cast<long long>(image.size()))
                     .set("previous_firmware", before.text())
                     .set("firmware", after.text())
                     .set("updated", changed));
    if (!changed)
        throw ToolError("the unit still reports firmware " + after.text() +
                            " after the update: the new image did not take (or holds the same version)",
                        NKR_ERROR_GENERAL, kExitDeviceError);
    say(paint(Colour::Green, "Updated " + unit.label() + " from firmware " + before.text() + " to " +
                                 after.text() + "."));
    return kExitOk;
}

}  // namespace

Command addFirmwareCommand(CLI::App& app, const GlobalOptions& globals)
{
    auto options = std::make_shared<FirmwareOptions>();
    CLI::App* sub = app.add_subcommand(
        "firmware",
        "Write a firmware image file to a unit: over USB in blocks of 55 bytes (firmware 3.7.0 "
        "and later) or, with --ble, over Bluetooth in blocks of 480 bytes (firmware after "
        "3.8.1), with a progress bar; then wait for the unit to restart and check that it "
        "reports a new firmware version.");
    sub->add_option("ID", options->id,
                    "Slot id of a USB unit (see 'nkr list'); leave out when --ble names the unit");
    sub->add_option("IMAGE", options->image, "The firmware image file");
    sub->add_option("--restart-wait", options->restartSeconds,
                    "Seconds to wait for the unit to come back after the update")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 300));
    sub->footer("Examples:\n  nkr firmware 1 nkr-3.9.0.bin\n  nkr --ble \"NKR Pro_A1B2\" firmware nkr-pro-3.9.0.bin");
    return {sub, [options, &globals] { return runFirmware(*options, globals); }, false};
}

}  // namespace nkrtool
