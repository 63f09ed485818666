#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace e2e {

namespace {

std::string number(double value) {
    char text[64];
    double magnitude = std::fabs(value);
    if (magnitude >= 1000)
        std::snprintf(text, sizeof text, "%.0f", value);
    else if (magnitude >= 100)
        std::snprintf(text, sizeof text, "%.1f", value);
    else if (magnitude >= 1)
        std::snprintf(text, sizeof text, "%.2f", value);
    else
        std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string jsonNumber(double value) {
    if (!std::isfinite(value)) return "null";
    char text[64];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

// -1 when there is nothing to judge, else 0 or 1.
int judge(const Goal& goal, bool hasRatio, double ratio, bool hasValue, double value) {
    switch (goal.kind) {
        case Goal::kNone:
            return -1;
        case Goal::kRatioAtMost:
            return hasRatio ? ratio <= goal.limit : -1;
        case Goal::kRatioAtLeast:
            return hasRatio ? ratio >= goal.limit : -1;
        case Goal::kValueBelow:
            return hasValue ? value < goal.limit : -1;
        case Goal::kValueAtMost:
            return hasValue ? value <= goal.limit : -1;
    }
    return -1;
}

std::string describe(const Goal& goal, const std::string& unit, const char* baseline) {
    switch (goal.kind) {
        case Goal::kNone:
            return "";
        case Goal::kRatioAtMost:
            return "<= " + number(goal.limit) + "x " + baseline;
        case Goal::kRatioAtLeast:
            return ">= " + number(goal.limit) + "x " + baseline;
        case Goal::kValueBelow:
            return "< " + number(goal.limit) + " " + unit;
        case Goal::kValueAtMost:
            return "<= " + number(goal.limit) + " " + unit;
    }
    return "";
}

std::string ratioText(bool has, double ratio, const Spread& rounds) {
    if (!has) return "-";
    if (!rounds.has) return number(ratio);
    return number(rounds.median) + " (" + number(rounds.min) + "-" + number(rounds.max) + ")";
}

std::string spreadJson(const Spread& rounds) {
    if (!rounds.has) return "null";
    return "[" + jsonNumber(rounds.min) + ", " + jsonNumber(rounds.max) + "]";
}

}  // namespace

Spread Spread::of(std::vector<double> ratios) {
    ratios.erase(std::remove_if(ratios.begin(), ratios.end(),
                                [](double r) { return !std::isfinite(r) || r <= 0; }),
                 ratios.end());
    Spread spread;
    if (ratios.empty()) return spread;
    std::sort(ratios.begin(), ratios.end());
    size_t n = ratios.size();
    spread.has = true;
    spread.median = n % 2 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
    spread.min = ratios.front();
    spread.max = ratios.back();
    return spread;
}

int Row::met() const {
    int own = judge(goal, hasRatio(), ratio(), hasSdk, sdk);
    int peers = judge(peerGoal, hasPeerRatio(), peerRatio(), false, 0);
    if (own < 0) return peers;
    if (peers < 0) return own;
    return own && peers;
}

std::string Row::metText() const {
    auto word = [](int met) { return met < 0 ? "" : met ? "yes" : "NO"; };
    int own = judge(goal, hasRatio(), ratio(), hasSdk, sdk);
    int peers = judge(peerGoal, hasPeerRatio(), peerRatio(), false, 0);
    if (own >= 0 && peers >= 0) return std::string(word(own)) + "/" + word(peers);
    return word(met());
}

std::string Row::goalText() const {
    std::string own = describe(goal, unit, "TCP");
    std::string peers = describe(peerGoal, unit, "ZMQ");
    if (own.empty()) return peers;
    return peers.empty() ? own : own + ", " + peers;
}

void Report::add(const std::string& key, const std::string& label, const std::string& unit,
                 double sdk, double tcp, Goal goal) {
    Row row;
    row.key = key;
    row.label = label;
    row.unit = unit;
    row.sdk = sdk;
    row.tcp = tcp;
    row.hasSdk = true;
    row.hasTcp = true;
    row.goal = goal;
    add(std::move(row));
}

void Report::addSdkOnly(const std::string& key, const std::string& label, const std::string& unit,
                        double sdk, Goal goal) {
    Row row;
    row.key = key;
    row.label = label;
    row.unit = unit;
    row.sdk = sdk;
    row.hasSdk = true;
    row.goal = goal;
    add(std::move(row));
}

void Report::note(const std::string& key, const std::string& value) {
    notes_.emplace_back(key, value);
}

void Report::printTable(FILE* out) const {
    for (const auto& note : notes_)
        std::fprintf(out, "%-14s %s\n", note.first.c_str(), note.second.c_str());
    std::fprintf(out, "\n%-44s %-7s %9s %9s %-20s %9s %-20s %-24s %s\n", "figure", "unit", "SDK",
                 "raw TCP", "SDK/TCP (range)", "ZeroMQ", "SDK/ZMQ (range)", "goal", "met");
    std::fprintf(out, "%s\n", std::string(152, '-').c_str());
    for (const Row& row : rows_) {
        std::string sdk = row.hasSdk ? number(row.sdk) : "-";
        std::string tcp = row.hasTcp ? number(row.tcp) : "-";
        std::string peer = row.hasPeer ? number(row.peer) : "-";
        std::string ratio = ratioText(row.hasRatio(), row.ratio(), row.tcpRounds);
        std::string peerRatio = ratioText(row.hasPeerRatio(), row.peerRatio(), row.peerRounds);
        std::fprintf(out, "%-44s %-7s %9s %9s %-20s %9s %-20s %-24s %s\n", row.label.c_str(),
                     row.unit.c_str(), sdk.c_str(), tcp.c_str(), ratio.c_str(), peer.c_str(),
                     peerRatio.c_str(), row.goalText().c_str(), row.metText().c_str());
    }
}

std::string Report::json() const {
    std::string out = "{\n  \"run\": {";
    for (size_t i = 0; i < notes_.size(); ++i) {
        out += i ? ",\n    " : "\n    ";
        out += jsonString(notes_[i].first) + ": " + jsonString(notes_[i].second);
    }
    out += "\n  },\n  \"results\": [";
    for (size_t i = 0; i < rows_.size(); ++i) {
        const Row& row = rows_[i];
        out += i ? ",\n    {" : "\n    {";
        out += "\"key\": " + jsonString(row.key);
        out += ", \"label\": " + jsonString(row.label);
        out += ", \"unit\": " + jsonString(row.unit);
        out += ", \"sdk\": " + (row.hasSdk ? jsonNumber(row.sdk) : "null");
        out += ", \"tcp\": " + (row.hasTcp ? jsonNumber(row.tcp) : "null");
        out += ", \"ratio\": " + (row.hasRatio() ? jsonNumber(row.ratio()) : "null");
        out += ", \"ratio_range\": " + spreadJson(row.tcpRounds);
        out += ", \"zmq\": " + (row.hasPeer ? jsonNumber(row.peer) : "null");
        out += ", \"zmq_ratio\": " + (row.hasPeerRatio() ? jsonNumber(row.peerRatio()) : "null");
        out += ", \"zmq_ratio_range\": " + spreadJson(row.peerRounds);
        out += ", \"goal\": " + jsonString(row.goalText());
        int met = row.met();
        out += ", \"met\": " + std::string(met < 0 ? "null" : met ? "true" : "false");
        out += "}";
    }
    out += "\n  ]\n}\n";
    return out;
}

}  // namespace e2e
