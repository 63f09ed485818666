#pragma once

// The harness's one output: a table with, per figure, the SDK's value, the raw-TCP floor of
// the same shape measured in the same run, their ratio and the goal; and the same rows as
// JSON for tracking from run to run.

#include <cstdio>
#include <string>
#include <vector>

namespace e2e {

struct Goal {
    enum Kind { kNone, kRatioAtMost, kRatioAtLeast, kValueBelow };
    Kind kind = kNone;
    double limit = 0;

    static Goal none() { return {}; }
    static Goal ratioAtMost(double limit) { return {kRatioAtMost, limit}; }
    static Goal ratioAtLeast(double limit) { return {kRatioAtLeast, limit}; }
    static Goal valueBelow(double limit) { return {kValueBelow, limit}; }
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

    bool hasRatio() const { return hasSdk && hasTcp && tcp != 0; }
    double ratio() const { return hasRatio() ? sdk / tcp : 0; }
    // -1 when there is no goal (or nothing to judge), else 0 or 1.
    int met() const;
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
