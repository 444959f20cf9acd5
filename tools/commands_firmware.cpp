// nkr firmware: write a firmware image to a unit over USB or Bluetooth, then
// check that the unit comes back with a new version.
#include <NKR_focuser.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
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
    bool yes = false;
    bool dryRun = false;
};

constexpr size_t kUsbBlock = sizeof(_NKR_HID_FILE_BUF::buf);   // 55
constexpr size_t kBleBlock = sizeof(_NKR_BLE_FILE_BUF::data);  // 480
constexpr size_t kMaxImageBytes = 16u << 20;

// The file is looked at before it is read: a directory, a device such as
// /dev/zero or a huge file is refused without reading a byte of it.
std::vector<unsigned char> readImage(const std::string& path)
{
    const std::string shown = "'" + clipped(path, 60) + "'";
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        usageError("cannot use the firmware image " + shown + ": " + std::strerror(errno));
    if (S_ISDIR(info.st_mode)) usageError("the firmware image " + shown + " is a directory, not a file");
    if (!S_ISREG(info.st_mode))
        usageError("the firmware image " + shown + " is not a regular file (a device or pipe?)");
    if (info.st_size == 0) usageError("the firmware image " + shown + " is empty");
    if (static_cast<unsigned long long>(info.st_size) > kMaxImageBytes)
        usageError("the firmware image " + shown + " has " + std::to_string(info.st_size) +
                   " bytes, more than 16 MiB; is it the right file?");
    std::ifstream in(path, std::ios::binary);
    if (!in) usageError("cannot read the firmware image " + shown + ": " + std::strerror(errno));
    std::vector<unsigned char> image(static_cast<size_t>(info.st_size));
    in.read(reinterpret_cast<char*>(image.data()), static_cast<std::streamsize>(image.size()));
    if (static_cast<size_t>(in.gcount()) != image.size())
        usageError("the firmware image " + shown + " changed while it was read");
    return image;
}

// What the unit is left in after a write stopped part-way.
std::string stateAfterStop(size_t written, size_t total)
{
    return "the update stopped after " + std::to_string(written) + " of " + std::to_string(total) +
           " bytes: the unit is in update mode and will not focus until an update completes. "
           "Run the same nkr firmware command again (keep the unit powered and connected); "
           "the previous firmware is not restored by itself";
}

// A failure after the unit entered update mode leaves it there; the host
// settings remember it, so every program says so and refuses to move it.
struct UpdateStopped : ToolError {
    UpdateStopped(std::string message, int code, int exitStatus, size_t written, size_t total)
        : ToolError(std::move(message), code, exitStatus), written(written), total(total)
    {
    }
    size_t written, total;
};

[[noreturn]] void failWriting(int code, size_t offset, size_t total)
{
    if (interrupted())
        throw UpdateStopped(std::string("interrupted by ") + signalDescription(receivedSignal()) + ": " +
                                stateAfterStop(offset, total),
                            -1, kExitInterrupted, offset, total);
    throw UpdateStopped("writing the image failed at byte " + std::to_string(offset) + ": " +
                            formatErrorCode(code) + "; " + stateAfterStop(offset, total),
                        code, kExitDeviceError, offset, total);
}

// Progress: the bar on a terminal, an event per percent under --json.
class UpdateProgress {
public:
    UpdateProgress(int id, size_t total) : id_(id), total_(total) {}
    void show(size_t done)
    {
        bar_.update(static_cast<double>(done) / static_cast<double>(total_),
                    std::to_string(done) + " of " + std::to_string(total_) + " bytes");
        int percent = static_cast<int>(done * 100 / total_);
        if (jsonMode() && (percent != lastPercent_ || done == total_)) {
            lastPercent_ = percent;
            emitJson(eventJson("firmware_progress", id_)
                         .set("bytes_written", static_cast<long long>(done))
                         .set("bytes_total", static_cast<long long>(total_))
                         .set("percent", percent));
        }
    }
    void finish() { bar_.finish(); }

private:
    int id_;
    size_t total_;
    int lastPercent_ = -1;
    ProgressBar bar_;
};

void writeOverUsb(int id, const std::vector<unsigned char>& image)
{
    check(NKRHidStartUpdate(id), "starting the USB firmware update");
    UpdateProgress progress(id, image.size());
    for (size_t offset = 0; offset < image.size(); offset += kUsbBlock) {
        if (interrupted()) failWriting(NKR_ERROR_GENERAL, offset, image.size());
        _NKR_HID_FILE_BUF block{};
        block.len = static_cast<int>(std::min(kUsbBlock, image.size() - offset));
        std::memcpy(block.buf, image.data() + offset, static_cast<size_t>(block.len));
        int rc = NKRHidWriteUpdateFile(id, block);
        if (rc != NKR_SUCCESS) failWriting(rc, offset, image.size());
        progress.show(offset + static_cast<size_t>(block.len));
    }
    progress.finish();
    check(NKRHidEndUpdate(id), "ending the USB firmware update");
}

void writeOverBle(int id, const std::vector<unsigned char>& image)
{
    check(NKRBLEStartUpdate(id, static_cast<int>(image.size())), "starting the Bluetooth firmware update");
    UpdateProgress progress(id, image.size());
    for (size_t offset = 0; offset < image.size(); offset += kBleBlock) {
        if (interrupted()) failWriting(NKR_ERROR_GENERAL, offset, image.size());
        _NKR_BLE_FILE_BUF block{};
        block.length = static_cast<int>(std::min(kBleBlock, image.size() - offset));
        std::memcpy(block.data, image.data() + offset, static_cast<size_t>(block.length));
        int rc = NKRBLEWriteUpdateFile(id, block);
        if (rc != NKR_SUCCESS) failWriting(rc, offset, image.size());
        progress.show(offset + static_cast<size_t>(block.length));
    }
    progress.finish();
}

// Refuses before anything is written when the unit's firmware cannot take
// an update over this link.
void checkUpdatable(const UnitSession& unit, const Firmware& fw)
{
    Controls controls = readControls(unit.id());
    Feature feature = unit.isBle() ? kFeatureBleUpdate : kFeatureUsbUpdate;
    bool listed = false;
    for (const Control& c : controls.list) listed = listed || c.type == feature;
    bool supported = listed ? controls.has(feature) : (unit.isBle() ? fw.number() > 381 : fw.number() >= 370);
    if (supported) return;
    throw ToolError(unit.label() + " (firmware " + fw.text() + ") cannot be updated over " +
                        (unit.isBle() ? "Bluetooth (firmware after 3.8.1 is needed)"
                                      : "USB (firmware 3.7.0 or later is needed)") +
                        "; nothing was written: " + formatErrorCode(NKR_ERROR_NOT_SUPPORTED),
                    NKR_ERROR_NOT_SUPPORTED, kExitDeviceError);
}

// Asks on the terminal; anything but y/yes declines. Without a terminal on
// stdin there is nobody to ask, so the update is refused (use --yes).
bool confirmed()
{
    if (isatty(STDIN_FILENO) == 0)
        usageError("refusing to write firmware without confirmation: stdin is not a terminal; "
                   "add --yes to confirm, or --dry-run to check only");
    std::fprintf(stderr, "Write this image? [y/N] ");
    std::fflush(stderr);
    std::string answer;
    for (;;) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {interruptFd(), POLLIN, 0}};
        if (poll(fds, interruptFd() >= 0 ? 2 : 1, -1) < 0 && errno != EINTR) return false;
        if (interrupted()) return false;
        char c = 0;
        if (read(STDIN_FILENO, &c, 1) != 1 || c == '\n') break;
        answer += c;
    }
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "YES";
}

int runFirmware(const FirmwareOptions& options, const GlobalOptions& globals)
{
    std::vector<std::string> args = givenArgs({options.id, options.image});
    UnitTarget target = takeTarget(args, globals.ble, globals.bleScanSeconds);
    if (args.empty()) usageError("missing IMAGE (the firmware file to write)");
    if (args.size() > 1) usageError("unexpected argument '" + clipped(args[1]) + "'");
    const std::string path = args.front();
    std::vector<unsigned char> image = readImage(path);

    // Writing firmware drives the unit: only its holder may; a dry run only looks.
    UnitSession unit(target, options.dryRun ? UnitSession::Access::ReadOnly : UnitSession::Access::Drive);
    Firmware before = readFirmware(unit.id());
    check(before.code, "reading the firmware version");
    checkUpdatable(unit, before);

    // The plan, on stderr in JSON mode so stdout stays one JSON stream.
    std::string plan = "Firmware update: " + path + " (" + std::to_string(image.size()) + " bytes) to " +
                       unit.label() + ", now at firmware " + before.text() + ", over " +
                       (unit.isBle() ? "Bluetooth" : "USB") + ".";
    if (jsonMode())
        std::fprintf(stderr, "%s\n", plan.c_str());
    else
        say(plan);
    if (options.dryRun) {
        if (jsonMode())
            emitJson(Json::object()
                         .set("id", unit.id())
                         .set("link", unit.isBle() ? "ble" : "usb")
                         .set("file", path)
                         .set("bytes", static_cast<long long>(image.size()))
                         .set("firmware", before.text())
                         .set("dry_run", true));
        else
            say("Dry run: the image and the unit are fit for the update; nothing was written.");
        // Leave the unit as found: nothing changed.
        unit.leaveOpen();
        return kExitOk;
    }
    if (!options.yes && !confirmed()) {
        unit.leaveOpen();
        if (interrupted()) return kExitInterrupted;
        say("Nothing was written.");
        return kExitOk;
    }

    say("Writing " + std::to_string(image.size()) + " bytes; " +
        (unit.isBle() ? "keep the unit switched on and near." : "do not unplug the unit."));
    try {
        if (unit.isBle())
            writeOverBle(unit.id(), image);
        else
            writeOverUsb(unit.id(), image);
    } catch (const UpdateStopped& stopped) {
        unit.unit().noteUpdateStopped(static_cast<long long>(stopped.written), static_cast<long long>(stopped.total));
        throw;
    }

    say("Image written; waiting for the unit to restart...");
    unit.reopen(options.restartSeconds);
    Firmware after = readFirmware(unit.id());
    check(after.code, "reading the firmware version after the update");
    bool changed = after.number() != before.number();
    unit.unit().noteUpdateCompleted();

    if (jsonMode())
        emitJson(eventJson("firmware_done", unit.id())
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
        "reports a new firmware version. Shows the file, its size, the unit and its current "
        "firmware first and asks for confirmation on the terminal (--yes for scripts).");
    sub->add_option("ID", options->id, kUnitIdHelp);
    sub->add_option("IMAGE", options->image, "The firmware image file");
    sub->add_option("--restart-wait", options->restartSeconds,
                    "Seconds to wait for the unit to come back after the update")
        ->type_name("SECONDS")
        ->check(numberIn(1, 300, true, "seconds"));
    sub->add_flag("-y,--yes", options->yes, "Write without asking (for scripts)");
    sub->add_flag("--dry-run", options->dryRun,
                  "Check the image and the unit, show what would be written, write nothing");
    sub->footer("Examples:\n  nkr firmware 1 nkr-3.9.0.bin --dry-run\n  nkr firmware 1 nkr-3.9.0.bin\n  nkr --ble \"NKR Pro_A1B2\" firmware nkr-pro-3.9.0.bin");
    return {sub, [options, &globals] { return runFirmware(*options, globals); }, false};
}

}  // namespace nkrtool
