// DetectQosScore: turns the statistics of one stream into one number. Three
// piecewise-linear curves over a table of rows (delay, jitter, loss against
// a score), weighted and summed; a limit row beyond which a site is unusable
// (-1000). One scorer per process, with a default table and weights that a
// host may replace.
//
// Threads: any. Running clients score while a host may set a new table or
// new weights: every read and write of the table and weights is under the
// scorer's own mutex (never held across a call out of this file).
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "bwdetect/detect_cli_pkt.h"
#include "zeph_nettools/net_tools.h"

// Results of the setters besides 0 (and what the exports give when there is
// no scorer).
constexpr int32_t DETECT_ERR_BAD_ROLES = 26;
constexpr int32_t DETECT_ERR_BAD_WEIGHT = 32;
constexpr int32_t DETECT_ERR_NO_SCORER = 33;

// The score of a site that cannot be used.
constexpr int32_t DETECT_SCORE_UNUSABLE = -1000;

class DetectQosScore {
public:
    static constexpr int kWeights = 3; // delay, jitter, loss
    static constexpr uint32_t kMinWeight = 1;
    static constexpr uint32_t kMaxWeight = 5;

    // What check_role finds in a table.
    struct RoleCheck {
        int32_t usable = 0;      // rows that make the curves; 0 when fewer than two
        bool has_limit = false;  // the row behind them is a limit row
    };

    // The process's scorer, made at the first call; null when it cannot be made.
    static DetectQosScore* get_instance();
    // Deletes it. Only for the end of the process, when no detection runs.
    static void destroy_instance();

    // 0, or DETECT_ERR_BAD_WEIGHT (each must be kMinWeight..kMaxWeight;
    // nothing changes then).
    int32_t set_weight(const uint32_t weights[kWeights]);
    // 0, or DETECT_ERR_BAD_ROLES when fewer than two rows are usable
    // (nothing changes then). A table without a limit row keeps the limit in
    // force before it.
    int32_t set_roles(const std::vector<DetectRole>& roles);
    // The usable rows of `roles`: the walk stops at a row marked not valid,
    // at a row that does not rise in delay, jitter and loss and fall in
    // score, and at a limit row (score -1000, from the second row on).
    static RoleCheck check_role(const std::vector<DetectRole>& roles);

    // The score of one stream's figures; `delaybase` (ms) is added to the
    // one-way delay before the delay curve is read.
    int32_t get_qos_score(const DetectPktStat& stat, uint32_t delaybase) const;

    // Defaults: the table, and the weights of delay, jitter and loss.
    static std::vector<DetectRole> default_roles();
    static constexpr uint32_t kDefaultWeights[kWeights] = {2, 2, 3};

private:
    DetectQosScore();

    mutable std::mutex m_mutex;
    int32_t m_role_num = 0;
    std::vector<DetectRole> m_roles;
    uint32_t m_has_limit = 0;
    DetectRole m_limit = {}; // the limit row in force while m_has_limit
    uint32_t m_weight[kWeights] = {};
};
