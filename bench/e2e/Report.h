#pragma once

// The harness's one output: a table with, per figure, the SDK's value, the raw-TCP floor of
// the same shape measured in the same run, their ratio and the goal; and the same rows as
// JSON for tracking from run to run.

#include <cstdio>
#include <string>
#include <vector>

namespace e2e {

struct Goal {
    enum Kind { kNone, kRatioAtMost, kRatioAtLeast, kValueBelow, kValueAtMost };
    Kind kind = kNone;
    double limit = 0;

    static Goal none() { return {}; }
    static Goal ratioAtMost(double limit) { return {kRatioAtMost, limit}; }
    static Goal ratioAtLeast(double limit) { return {kRatioAtLeast, limit}; }
    static Goal valueBelow(double limit) { return {kValueBelow, limit}; }
    static Goal valueAtMost(double limit) { return {kValueAtMost, limit}; }
};

// The SDK's ratio to a baseline over interleaved rounds: the median of the per-round ratios
// and their range, so that a noisy run shows as a wide range rather than as a shift.
struct Spread {
    bool has = false;
    double median = 0, min = 0, max = 0;
    // Empty or all-invalid ratios give none.
    static Spread of(std::vector<double> ratios);
};

struct Row {
    std::string key;    // stable JSON name, e.g. "get_8b_app_p50"
    std::string label;  // what the table says
    std::string unit;
    double sdk = 0;
    double tcp = 0;
    bool hasSdk = false;
    bool hasTcp = false;  // sizes have no floor
    Goal goal;
    Spread tcpRounds;  // per-round ratios to the floor, when measured in rounds
    // The peer library's figure of the same shape, when measured.
    double peer = 0;
    bool hasPeer = false;
    Spread peerRounds;
    Goal peerGoal;

    bool hasRatio() const { return hasSdk && hasTcp && (tcpRounds.has || tcp != 0); }
    double ratio() const { return !hasRatio() ? 0 : tcpRounds.has ? tcpRounds.median : sdk / tcp; }
    bool hasPeerRatio() const { return hasSdk && hasPeer && (peerRounds.has || peer != 0); }
    double peerRatio() const {
        return !hasPeerRatio() ? 0 : peerRounds.has ? peerRounds.median : sdk / peer;
    }
    // -1 when there is no goal (or nothing to judge), else 0 or 1: both goals met.
    int met() const;
    // "yes", "NO", or one word per goal ("NO/yes": the floor's missed, the peer's met).
    std::string metText() const;
    std::string goalText() const;
};

class Report {
public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    // A row with both figures.
    void add(const std::string& key, const std::string& label, const std::string& unit, double sdk,
             double tcp, Goal goal);
    // A row with the SDK's figure only.
    void addSdkOnly(const std::string& key, const std::string& label, const std::string& unit,
                    double sdk, Goal goal);
    // Free-form facts about the run (machine, load, settings) printed above the table and
    // written into the JSON.
    void note(const std::string& key, const std::string& value);

    void printTable(FILE* out) const;
    std::string json() const;

    const std::vector<Row>& rows() const { return rows_; }

private:
    std::vector<Row> rows_;
    std::vector<std::pair<std::string, std::string>> notes_;
};

}  // namespace e2e
