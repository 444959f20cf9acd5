// The nkr tool's errors and help, Bluetooth sessions, firmware update and demo.
#include "tool_support.h"

namespace nkrtest {
namespace {

TEST_F(ToolTest, ToolErrorsNameTheCodeAndSetTheExitStatus)
{
    ToolRun unknown = run("--json info 7");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find("no focuser answers to '7'"), std::string::npos) << unknown.err;
    EXPECT_EQ(jsonString(unknown.out, "name"), "NKR_HOST_UNIT_NOT_FOUND");

    EXPECT_EQ(run("info 60").status, 2) << "Bluetooth ids live only inside one program";
    EXPECT_EQ(run("move 0 12x").status, 2);
    EXPECT_EQ(run("").status, 2) << "no sub-command";

    ToolRun missing = run("--ble 'No Such Unit' info");
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("No Such Unit"), std::string::npos) << missing.err;

    // Errors in text mode go to stderr only.
    ToolRun text = run("info 9");
    EXPECT_EQ(text.status, 2);
    EXPECT_TRUE(text.out.empty()) << text.out;
    EXPECT_NE(text.err.find("nkr: error:"), std::string::npos);
}

TEST_F(ToolTest, ToolHelpNamesEveryCommand)
{
    ToolRun help = runTool("", "--help");
    ASSERT_EQ(help.status, 0);
    for (const char* command : {"list", "info", "move", "stop", "sync", "set", "watch", "firmware", "demo"})
        EXPECT_NE(help.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
    EXPECT_NE(runTool("", "move --help").out.find("Ctrl-C"), std::string::npos);
    EXPECT_NE(runTool("", "--version").out.find("1, 7, 7, 0"), std::string::npos);
}

TEST_F(ToolTest, ToolBluetoothUnitByNameOrAddress)
{
    const std::string unit = "--ble 'NKR Pro_A1B2' ";
    ToolRun r = run("--json " + unit + "info");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonString(r.out, "link"), "ble");
    EXPECT_GE(jsonInt(r.out, "id").value_or(0), 50);
    EXPECT_EQ(jsonString(r.out, "type"), "NKR Pro");
    EXPECT_EQ(jsonInt(r.out, "percentage"), 87);
    EXPECT_EQ(jsonInt(r.out, "power_off_reason"), 0);
    EXPECT_EQ(jsonString(r.out, "power_off_reason_name"), "normal");
    std::optional<std::string> address = jsonString(r.out, "ble_address");
    ASSERT_TRUE(address.has_value());

    ToolRun sync = run("--json " + unit + "sync 20000");
    ASSERT_EQ(sync.status, 0) << sync.err;
    EXPECT_EQ(jsonInt(sync.out, "position"), 20000);
    ToolRun set = run("--json " + unit + "set led=on backlash=7");
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(jsonRaw(set.out, "led"), "true");
    EXPECT_EQ(jsonInt(set.out, "backlash"), 7);

    // The same unit by its address, moved; the option may follow the command.
    ToolRun moved = run("--json move +300 --ble '" + *address + "'");
    ASSERT_EQ(moved.status, 0) << moved.err;
    EXPECT_EQ(jsonInt(moved.lines().back(), "position"), jsonInt(moved.lines().front(), "start").value_or(0) + 300);

    ToolRun watch = run("--json " + unit + "watch --count 2 --interval 50");
    ASSERT_EQ(watch.status, 0) << watch.err;
    EXPECT_EQ(watch.lines().size(), 2u);
    ToolRun stop = run("--json " + unit + "stop");
    ASSERT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(jsonRaw(stop.out, "stopped"), "true");
    ToolRun text = run(unit + "info");
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("Bluetooth address"), std::string::npos);
    EXPECT_NE(text.out.find("87 %"), std::string::npos);
    for (const char* withUnit : {"4200 mV", "32 mA", "health ............... 95 %"})
        EXPECT_NE(text.out.find(withUnit), std::string::npos) << withUnit << "\n" << text.out;

    // Last: the unit is found by its old name no more.
    ToolRun named = run("--json " + unit + "set ble-name=Scope1");
    ASSERT_EQ(named.status, 0) << named.err;
    EXPECT_EQ(jsonString(named.out, "ble_name"), "Scope1");
}

TEST_F(ToolTest, ToolFirmwareUpdateReportsTheNewVersion)
{
    std::string image = home_ + "/image.bin";
    {
        std::ofstream out(image, std::ios::binary);
        for (int k = 0; k < 1234; ++k) out.put(static_cast<char>(k * 7));
    }
    ToolRun usb = run("--json firmware 1 '" + image + "' --yes");
    ASSERT_EQ(usb.status, 0) << usb.err;
    EXPECT_EQ(jsonString(usb.out, "previous_firmware"), "3.8.2");
    EXPECT_EQ(jsonString(usb.out, "firmware"), "3.9.0");
    EXPECT_EQ(jsonInt(usb.out, "bytes"), 1234);

    ToolRun ble = run("--json --ble 'NKR Pro_A1B2' firmware '" + image + "' --yes");
    ASSERT_EQ(ble.status, 0) << ble.err;
    EXPECT_EQ(jsonString(ble.out, "firmware"), "3.9.0");

    // The older unit cannot be updated over USB: a device error, not a hang.
    ToolRun old = run("firmware 0 '" + image + "' --yes");
    EXPECT_EQ(old.status, 1);
    EXPECT_NE(old.err.find("NKR_ERROR_NOT_SUPPORTED"), std::string::npos) << old.err;

    EXPECT_EQ(run("firmware 1 '" + home_ + "/missing.bin' --yes").status, 2);
}

TEST_F(ToolTest, ToolFirmwareChecksFirstAndWritesOnlyWhenConfirmed)
{
    // Refused before a byte is read: no memory for /dev/zero, no raw C++ error.
    ToolRun directory = run("firmware 1 '" + home_ + "' --yes");
    EXPECT_EQ(directory.status, 2);
    EXPECT_NE(directory.err.find("is a directory"), std::string::npos) << directory.err;
    ToolRun device = run("firmware 1 /dev/zero --yes");
    EXPECT_EQ(device.status, 2);
    EXPECT_NE(device.err.find("not a regular file"), std::string::npos) << device.err;

    std::string image = home_ + "/image.bin";
    {
        std::ofstream out(image, std::ios::binary);
        for (int k = 0; k < 1000; ++k) out.put(static_cast<char>(k));
    }
    // Without a terminal to ask on and without --yes: nothing is written.
    ToolRun unasked = run("firmware 1 '" + image + "' </dev/null");
    EXPECT_EQ(unasked.status, 2);
    EXPECT_NE(unasked.err.find("add --yes"), std::string::npos) << unasked.err;
    EXPECT_EQ(unasked.out.find("Writing"), std::string::npos) << unasked.out;

    ToolRun dry = run("firmware 1 '" + image + "' --dry-run");
    EXPECT_EQ(dry.status, 0) << dry.err;
    EXPECT_NE(flat(dry.out).find("(1000 bytes) to USB unit 1, now at firmware 3.8.2"), std::string::npos) << dry.out;
    EXPECT_NE(flat(dry.out).find("nothing was written"), std::string::npos) << dry.out;
    EXPECT_EQ(run("get 1 firmware").out, "3.8.2\n");

    // A unit that cannot take it is named before anything says "Writing".
    ToolRun old = run("firmware 0 '" + image + "' --yes");
    EXPECT_EQ(old.status, 1);
    EXPECT_EQ(old.out.find("Writing"), std::string::npos) << old.out;
    EXPECT_NE(old.err.find("nothing was written"), std::string::npos) << old.err;

    // Progress as events, then the result.
    ToolRun json = run("--json firmware 1 '" + image + "' --yes");
    ASSERT_EQ(json.status, 0) << json.err;
    std::vector<std::string> lines = json.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(jsonString(lines.front(), "event"), "firmware_progress");
    EXPECT_EQ(jsonInt(lines[lines.size() - 2], "percent"), 100);
    EXPECT_EQ(jsonInt(lines[lines.size() - 2], "bytes_total"), 1000);
    EXPECT_EQ(jsonString(lines.back(), "event"), "firmware_done");
}

TEST_F(ToolTest, ToolDemoRunsToItsSummary)
{
    ToolRun r = run("demo");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    r.out = flat(r.out);
    EXPECT_NE(r.out.find("[6/6]"), std::string::npos);
    EXPECT_NE(r.out.find("Summary: 3 units found"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("battery 87 %"), std::string::npos);
    EXPECT_NE(r.out.find("position kept after reopening"), std::string::npos);
    // A fresh world: the unit has just powered up, with nothing saved to restore.
    EXPECT_NE(r.out.find("the unit powered up at 30000 and has not moved since; it stands at its power-on "
                         "position, nothing was restored"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("moved 30000 -> 34000 (after a power-up at 30000)"), std::string::npos) << r.out;

    // Demo needs the simulator and selects it by itself. The world outlives
    // the first run: the second finds the unit where it was left, with no
    // power-up, and says so instead of telling of one.
    ToolRun json = runTool("", "--json demo");
    ASSERT_EQ(json.status, 0) << json.err;
    ASSERT_EQ(json.lines().size(), 1u);
    EXPECT_EQ(jsonRaw(json.out, "ok"), "true");
    EXPECT_NE(json.out.find("\"start\":34000"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"power_up\":{\"seen\":false,\"restored\":false"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("no power-up: the world was kept from an earlier run"), std::string::npos) << json.out;
}

}  // namespace
}  // namespace nkrtest
