// ls PATH: a directory listed by the service, one line per entry in the
// manner of ls -l (--json: one line per block, then a summary). The blocks
// carry no command id, so the listing is picked out of the event stream
// (ListingAssembly), and an end marker sent right behind the request ends a
// listing whose count never reaches its total. ls waits for the marker's
// block even after a complete or failed listing: left behind, it would
// reach the next ls as a failure before that one's listing began.
// cover FOLDER FILE: the link the service makes to a media file's cover.
// The answer carries no command id; its path ends in FILE, "." and an
// extension, which tells this client's answer from another client's.
#include <chrono>
#include <unistd.h>

#include <StorageEvents.h>

#include "commands.h"

namespace lumctl {

namespace {

constexpr double kListingTimeoutSeconds = 30;
// --no-tags alone: names starting with "." hidden, the closest filter to
// the service's default (a flags byte always replaces the default).
constexpr int kNoTagsFilter = 1;

std::string entries(long long n) { return count_of(n, "entry", "entries"); }

struct Lister {
    CtlContext ctx;  // with the subcommand's --json
    std::string path;
    bool human = false;
    ListingAssembly listing;
    std::string damage;           // the fault of a damaged block of this listing
    bool marker_refused = false;  // the service did not queue the end marker
    bool refused = false;         // the service did not queue the listing
    // From the connection to the daemon until the listing's result was in:
    // what a client waits for a listing, without the start of this process.
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    long long elapsed_us = -1;
    // With --json the blocks are printed once the wait is over, so that
    // elapsed_us holds the service's time and not this process's rendering.
    std::vector<ListingBlock> held;

    EventStep take(const CtlEvent& event)
    {
        ListingBlock block;
        if (!parse_listing_block(event.data.data(), event.data.size(), &block))
            return EventStep::kMore;  // not even a header: whose it is cannot be told
        BlockRole role = listing.take(block);
        if (role == BlockRole::kSkipped)
            return EventStep::kMore;
        if (!block.damage.empty())
            damage = "damaged block at offset " + std::to_string(block.offset) + ": " + block.damage;
        if (role != BlockRole::kEndMark && !refused && ctx.json)
            held.push_back(std::move(block));
        else if (role != BlockRole::kEndMark && !refused)
            print_block(block, role);
        if (elapsed_us < 0 && result_known())
            elapsed_us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started)
                             .count();
        return finished() ? EventStep::kDone : EventStep::kMore;
    }

    EventStep marker_reply(const CtlReply& reply)
    {
        marker_refused = !reply_accepted(reply);
        return finished() ? EventStep::kDone : EventStep::kMore;
    }

    // The listing has its result, and the end marker's block came or will
    // not come.
    bool result_known() const { return listing.complete || listing.failed; }
    // A refused listing sends no block: the first failure block is the end
    // marker's, which is waited for so that it never reaches the next ls.
    bool finished() const
    {
        return listing.end_marked || !damage.empty() || (result_known() && marker_refused) ||
               (refused && (listing.failed || marker_refused));
    }

    EventStep listing_refused()
    {
        refused = true;
        return finished() ? EventStep::kDone : EventStep::kMore;
    }

    void print_block(const ListingBlock& block, BlockRole role) const
    {
        if (role == BlockRole::kFirst)
            fprintf(ctx.out, "%s: %s\n", printable(path).c_str(), entries(block.total).c_str());
        for (const auto& record : block.records)
            fprintf(ctx.out, "%s\n", record_line(record, human).c_str());
        fflush(ctx.out);
    }

    void print_held()
    {
        for (const ListingBlock& block : held)
            print_json(ctx.out, listing_block_json(block));
        held.clear();
    }

    // Once the wait ended with the listing's end, a failure or a damaged
    // block: the summary and the exit code.
    int finish() const
    {
        Json json = {{"path", path}};
        if (listing.failed || !damage.empty()) {
            if (!damage.empty())
                json["damage"] = damage;
            json["failed"] = true;
            if (ctx.json)
                print_json(ctx.out, json);
            return protocol_error(ctx, "ls " + path + ": " +
                                           (damage.empty() ? "the service could not list it (is it an absolute "
                                                             "path of a directory or playlist?)"
                                                           : damage));
        }
        json["total"] = listing.total;
        json["shown"] = listing.received;
        json["notShown"] = listing.not_shown();
        json["failed"] = false;
        json["elapsedUs"] = elapsed_us;
        if (ctx.json)
            print_json(ctx.out, json);
        else if (listing.not_shown() > 0)
            fprintf(ctx.out, "(%s not shown: neither file, link nor directory)\n",
                    entries(listing.not_shown()).c_str());
        return kExitOk;
    }

    std::string waiting() const
    {
        if (!listing.started)
            return "the listing";
        return "the rest of the listing (" + std::to_string(listing.received) + " of " + entries(listing.total) +
               " so far)";
    }
};

}  // namespace

int run_ls(const CtlContext& ctx, const DeviceArgs& args)
{
    // The flags byte and id from --filter, --no-tags and --id (the parser
    // checked their ranges); without --id the process id names the listing.
    const int flags = args.filter >= 0 || args.no_tags
                          ? (args.filter >= 0 ? args.filter : kNoTagsFilter) | (args.no_tags ? kListingNoTags : 0)
                          : kListingNoFlags;
    const auto id = static_cast<uint16_t>(args.id >= 0 ? args.id : getpid() & 0xFFFF);
    DeviceCall call(ctx, "ls", "STORAGE_READ_DIRS", args, kListingTimeoutSeconds, "no listing will come");
    Lister lister{call.local, call.args.operands[0], args.human, {}, {}, false, false,
                  std::chrono::steady_clock::now(), -1, {}};
    EventQuery query;
    std::vector<uint8_t> end_mark;
    std::string error;
    // The end marker: an empty path, which the service answers with one
    // failure block after this listing's blocks.
    if (build_listing_request(lister.path, flags, id, &query.request, &error) != 0 ||
        build_listing_request("", kListingNoFlags, id, &end_mark, &error) != 0)
        return usage_error(ctx, "ls: " + error);
    query.more_requests.push_back(end_mark);
    query.on_more_reply = [&lister](size_t, const CtlReply& reply) { return lister.marker_reply(reply); };
    query.on_refused = [&lister](const CtlReply&) { return lister.listing_refused(); };
    device_wait(call, {LUM_TV_EVT_STORAGE_READ_DIRS}, [&lister](const CtlEvent& e) { return lister.take(e); },
                &query);
    QueryOutcome out = event_query(ctx.socket_path, query);
    // Only the end marker's block is missing (lost, or behind other work).
    if (out.status == QueryStatus::kTimeout && lister.result_known())
        out.status = QueryStatus::kDone;
    lister.print_held();
    int rc = device_report(ctx, call, out, [&lister] { return lister.waiting(); });
    return rc != kExitOk ? rc : lister.finish();
}

namespace {

// The last component of path is file, ".", and an extension (maybe empty).
bool names_file(const std::string& path, const std::string& file)
{
    const std::string tail = "/" + file + ".";
    size_t at = path.rfind(tail);
    return at != std::string::npos && path.find('/', at + tail.size()) == std::string::npos;
}

}  // namespace

int run_cover(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "cover", "STORAGE_EXTRACT_COVER", args, kQueryTimeoutSeconds, "no cover answer will come");
    for (const std::string& text : args.operands) {
        if (text.size() > kServiceTextMax)
            return usage_error(ctx, "cover: '" + text + "' is too long: the service takes at most " +
                                        std::to_string(kServiceTextMax) + " bytes");
    }
    Json answer;
    const std::string& folder = args.operands[0];
    const std::string& file = args.operands[1];
    auto take = [&answer, &file](const CtlEvent& e) {
        Json got = event_json(e);
        if (!got.contains("path") || !names_file(got["path"], file))
            return EventStep::kMore;
        answer = std::move(got);
        return EventStep::kDone;
    };
    int rc = device_ask(ctx, call, args.operands, {LUM_TV_EVT_STORAGE_EXTRACT_COVER}, take,
                        [] { return std::string("the cover answer"); });
    if (rc != kExitOk)
        return rc;
    const std::string path = answer["path"];
    const unsigned status = answer["status"];
    const std::string text = "cover of " + printable(file) + ": " + printable(path) + " (status " +
                             std::to_string(status) + (status == 0 ? "" : ", failed") + ")";
    print_line(call.local, text, Json{{"folder", folder}, {"file", file}, {"status", status}, {"path", path}});
    return status == 0 ? kExitOk : kExitNo;
}

}  // namespace lumctl
