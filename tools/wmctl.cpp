// wmctl: the operator's tool for the work-message queues of a host.
//
// This file owns the command line: every command, its arguments, help texts
// and validation, and the exit codes scripts rely on (0 success, 1 an
// operation failed with its text on stderr, 2 a usage error). The commands
// themselves live in their families (see Wmctl.h) and get plain option
// structs.
//
// The parser is CLI11 (Debian's header-only libcli11-dev): a well-kept parser
// with subcommands, generated --help for every command and validation of the
// values, instead of a hand-written getopt loop per command that would need
// its own help texts and checks kept in step by hand.
#include <CLI/CLI.hpp>

#include <functional>

#include "Wmctl.h"

namespace {

using namespace wmctl;

// Values that name a message ID: decimal or 0x-hex.
const CLI::Validator kMessageId(
    [](std::string& s) {
        long n = 0;
        return ParseMessageId(s, &n) ? std::string()
                                     : "'" + s + "' is not a message ID (decimal or 0x-hex)";
    },
    "ID");

long MessageIdOf(const std::string& s) {
    long n = 0;
    ParseMessageId(s, &n); // validated by the parser
    return n;
}

CLI::Option* AddJson(CLI::App* sub, bool* pJson) {
    return sub->add_flag("--json", *pJson, "Report as JSON on stdout");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Operator's tool for the work-message queues of this host.\n"
                 "Processes and message types are given by name or by number.",
                 "wmctl"};
    app.set_version_flag("--version", "wmctl (QV_wm) " QV_WM_VERSION);
    app.require_subcommand(1);
    app.footer("Exit codes: 0 success, 1 an operation failed (its text on stderr), 2 usage.\n"
               "Every command has --help.");
    std::function<int()> run;

    // --- demo ---------------------------------------------------------------
    DemoOpts demo;
    CLI::App* sub = app.add_subcommand("demo", "Run the demo in a private root");
    sub->footer("Two processes exchange 300 messages in a private root (./demo-root unless "
                "given) and a private IPC namespace. The host's configuration and queues are "
                "never used.");
    sub->add_option("root", demo.strRoot, "Private root directory (default ./demo-root)");
    AddJson(sub, &demo.bJson);
    sub->callback([&] { run = [&] { return CmdDemo(demo); }; });

    // --- send ---------------------------------------------------------------
    SendOpts send;
    sub = app.add_subcommand("send", "Queue one message (Send)");
    sub->add_option("from", send.strFrom, "Sending process")->required();
    sub->add_option("to", send.strTo, "Target process")->required();
    sub->add_option("type", send.strType, "Message type")->required();
    CLI::Option* optData =
        sub->add_option("data", send.strData, "The data, as an argument (at most 8192 bytes)");
    sub->add_option("-f,--file", send.strFile, "Read the data from a file ('-': stdin)")
        ->excludes(optData);
    sub->add_flag("--high", send.bHigh, "High priority: delivered before all normal messages");
    sub->add_flag("--response", send.bResponse,
                  "Ask for a response (kept when the sender is itself a receiver of the type)");
    AddJson(sub, &send.bJson);
    sub->callback([&, optData] {
        send.bDataGiven = optData->count() > 0;
        run = [&] { return CmdSend(send); };
    });

    // --- recv ---------------------------------------------------------------
    RecvOpts recv;
    sub = app.add_subcommand("recv", "Receive the next message of a process (ReceiveByMsg)");
    sub->footer("The process is registered as a receiver while the command runs (SetInput, "
                "then UnsetInput). The data goes to stdout, and the summary then to stderr; "
                "with --out the data goes to the file; with --json both go into the JSON.");
    sub->add_option("process", recv.strProcess, "Receiving process")->required();
    sub->add_option("type", recv.strType,
                    "Receive only this type, and register for it (default: register for the "
                    "range's end or the first type; any type is received)");
    sub->add_option("--type-range", recv.strRange,
                    "Receive only types LO to HI (names or numbers; LO: or :HI leave an end "
                    "open)");
    sub->add_option("-w,--wait", recv.nWait,
                    "Seconds to wait for a message (default 1; 0 does not look, as the library "
                    "does; -1 waits until a message comes or the command is interrupted)")
        ->check(CLI::Range(-1L, 31536000L));
    sub->add_flag("--retry", recv.bRetry,
                  "Receive a message put back for retry instead of a pending one");
    sub->add_flag("--lifo", recv.bLifo,
                  "Newest first (the receiver's first registration decides the order)");
    sub->add_option("-o,--out", recv.strOut, "Write the data to this file");
    AddJson(sub, &recv.bJson);
    sub->callback([&] { run = [&] { return CmdRecv(recv); }; });

    // --- delete, reject, retry ---------------------------------------------
    MessageOpts del, rej, retry;
    std::string strDelId, strRejId, strRetryId;
    sub = app.add_subcommand("delete", "Delete a message and free its data (Delete)");
    sub->add_option("id", strDelId, "Message ID, as recv or send printed it")
        ->required()
        ->check(kMessageId);
    sub->add_option("--as", del.strAs, "The process deleting it (for the trace; default none)");
    AddJson(sub, &del.bJson);
    sub->callback([&] {
        del.nMessageId = MessageIdOf(strDelId);
        run = [&] { return CmdDelete(del); };
    });

    sub =
        app.add_subcommand("reject", "Save a message's data as a reject file, delete it (Reject)");
    sub->add_option("id", strRejId, "Message ID")->required()->check(kMessageId);
    sub->add_option("--as", rej.strAs, "The process rejecting it (names the reject file)")
        ->required();
    AddJson(sub, &rej.bJson);
    sub->callback([&] {
        rej.nMessageId = MessageIdOf(strRejId);
        run = [&] { return CmdReject(rej); };
    });

    sub = app.add_subcommand("retry", "Put a message back for a retry receive (Retry)");
    sub->add_option("id", strRetryId, "Message ID")->required()->check(kMessageId);
    sub->add_option("--as", retry.strAs, "The process handing it back (for the trace)");
    sub->add_flag("--delay", retry.bDelay,
                  "Delayed retry: delivered only when no plain retry is waiting");
    sub->add_option("--flags", retry.nFlags, "User flags handed to the retry receiver (0-255)")
        ->check(CLI::Range(0, 255));
    AddJson(sub, &retry.bJson);
    sub->callback([&] {
        retry.nMessageId = MessageIdOf(strRetryId);
        run = [&] { return CmdRetry(retry); };
    });

    // --- register, unregister ----------------------------------------------
    RegisterOpts reg, unreg;
    sub = app.add_subcommand("register", "Register a process as a receiver of a type (SetInput)");
    sub->footer("The entry stays until 'wmctl unregister', or until the shared state goes "
                "with the last process attached to it.");
    sub->add_option("process", reg.strProcess, "Receiving process")->required();
    sub->add_option("type", reg.strType, "Message type")->required();
    sub->add_flag("--lifo", reg.bLifo, "Deliver newest first");
    AddJson(sub, &reg.bJson);
    sub->callback([&] { run = [&] { return CmdRegister(reg); }; });

    sub = app.add_subcommand("unregister", "Remove registrations of a process (UnsetInput)");
    sub->footer("Removes the entries whichever OS process made them (--pid: only that "
                "process's).");
    sub->add_option("process", unreg.strProcess, "Registered process")->required();
    sub->add_option("type", unreg.strType, "Message type (default: every type)");
    sub->add_option("--pid", unreg.nPid, "Only the entries made by this OS process")
        ->check(CLI::PositiveNumber);
    AddJson(sub, &unreg.bJson);
    sub->callback([&] { run = [&] { return CmdUnregister(unreg); }; });

    // --- deleteby -----------------------------------------------------------
    DeleteByOpts delby;
    sub = app.add_subcommand("deleteby", "Delete the messages matching all criteria (DeleteBy)");
    sub->add_option("--age", delby.nDays, "At least this many whole days old")
        ->check(CLI::NonNegativeNumber);
    sub->add_option("--target", delby.strTarget, "Addressed to this process");
    sub->add_option("--sender", delby.strSender, "Sent by this process");
    sub->add_option("--type", delby.strType, "Of this message type");
    CLI::Option* optAll = sub->add_flag("--all", delby.bAll, "Delete every message of the host");
    for (const char* szOpt : {"--age", "--target", "--sender", "--type"})
        optAll->excludes(sub->get_option(szOpt));
    AddJson(sub, &delby.bJson);
    sub->callback([&] { run = [&] { return CmdDeleteBy(delby); }; });

    // --- count --------------------------------------------------------------
    CountOpts count;
    sub = app.add_subcommand("count", "Count messages (GetCounters)");
    sub->add_option("--by", count.strBy,
                    "state (every slot; default), type, type-state, target or sender")
        ->check(CLI::IsMember({"state", "type", "type-state", "target", "sender"}));
    sub->add_option("names", count.names,
                    "Types or processes to count (default: all in the names or process file)");
    AddJson(sub, &count.bJson);
    sub->callback([&] { run = [&] { return CmdCount(count); }; });

    // --- status, ipc-clean --------------------------------------------------
    StatusOpts status;
    sub = app.add_subcommand("status", "Show the live shared state");
    sub->footer("Segments, the Controls lock's owner, counters, receivers and messages by "
                "state, read through read-only attachments without taking the lock.");
    AddJson(sub, &status.bJson);
    sub->callback([&] { run = [&] { return CmdStatus(status); }; });

    MetricsOpts metrics;
    sub = app.add_subcommand("metrics", "Show the live state for a monitoring system");
    sub->footer("Gauges in the Prometheus text format (for node_exporter's textfile "
                "collector): messages by state, type and target, control and data slots, "
                "receiver registrations, the Controls lock and the next message ID. Read "
                "without taking the lock, like status.");
    sub->add_option("-o,--out", metrics.strOut,
                    "Replace this file atomically (e.g. DIR/wm.prom) instead of writing to stdout");
    sub->callback([&] { run = [&] { return CmdMetrics(metrics); }; });

    IpcCleanOpts ipc;
    sub = app.add_subcommand("ipc-clean", "Remove leftover segments no process is attached to");
    sub->add_option("--db", ipc.strDbDir,
                    "Database directory whose constructor lock to take (default: from the "
                    "configuration)");
    AddJson(sub, &ipc.bJson);
    sub->callback([&] { run = [&] { return CmdIpcClean(ipc); }; });

    // --- dump, fsck ---------------------------------------------------------
    DumpOpts dump;
    sub = app.add_subcommand("dump", "Decode the database files of a directory (offline)");
    sub->add_option("dbdir", dump.strDbDir,
                    "Directory of WQCF.bdb and WDDF.bdb (default: WM_DBPath from the "
                    "configuration)");
    sub->add_option("--slot", dump.nSlot, "Show one control slot with a hex dump of its data")
        ->check(CLI::NonNegativeNumber);
    AddJson(sub, &dump.bJson);
    sub->callback([&] { run = [&] { return CmdDump(dump); }; });

    FsckOpts fsck;
    sub = app.add_subcommand("fsck", "Check the database files of a directory (offline)");
    sub->footer("Exit 0: clean, or every problem repaired; 1: problems left.");
    sub->add_option("dbdir", fsck.strDbDir,
                    "Directory of WQCF.bdb and WDDF.bdb (default: WM_DBPath from the "
                    "configuration)");
    sub->add_flag("--repair", fsck.bRepair,
                  "Free leaked data slots and clear impossible control slots; only while no "
                  "process is attached");
    AddJson(sub, &fsck.bJson);
    sub->callback([&] { run = [&] { return CmdFsck(fsck); }; });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help is a "parse error" that succeeds.
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    return run ? run() : kExitUsage;
}
