// A fault campaign: the steps that `vxcdb --campaign FILE` runs one after the other. The file is
// JSON read with the system's own rules (comments and trailing commas allowed) and is checked
// whole before anything is sent to the service, so a typing mistake in step 7 cannot leave the
// first six steps' faults behind.
#pragma once

#include <string>
#include <vector>

#include "vxcdbmessage.pb.h"

namespace vxcdb {

// Largest campaign file read: far beyond any hand-written list of steps, and keeps a wrong path
// (a log, a core file) from being read into memory.
constexpr long kMaxCampaignFileBytes = 1024 * 1024;
// Longest `within_s` and `check_within_s`: the same bound as the tool's --timeout.
constexpr double kMaxStepSeconds = 3600.0;

// The address of a firmware fault-injection command (command 0, inject).
struct FirmwareAddress {
    int camera = 0;
    int sensor = 0;
    int interface = 0;
    std::string param;  // free text; empty: none
};

struct CampaignStep {
    std::string name;  // for reports: the "name" key, or the group and its arguments
    bool isFirmware = false;
    std::string group;  // hook-group steps
    std::vector<std::string> args;
    FirmwareAddress firmware;  // firmware steps
    std::string stimulus;      // shell command run after the injection; empty: none
    std::string check;         // shell command, exit status 0 when the camera stack is fine
    bool expectInstalled = true;
    bool expectExecuted = true;
    double withinSeconds = 5.0;
    double checkWithinSeconds = 0.0;  // 0: the check runs once
    bool clear = true;
};

struct Campaign {
    std::string path;
    std::string name;  // the "name" key, or the file's base name without ".json"
    std::vector<CampaignStep> steps;
};

// Reads and checks the campaign file at `path`. False with one line in `*error` naming the file,
// the step (from 1) and the key at fault.
bool LoadCampaignFile(const std::string& path, Campaign* campaign, std::string* error);

// The same for a text already read; `path` only names the file in errors and the default name.
bool ParseCampaign(const std::string& text, const std::string& path, Campaign* campaign,
                   std::string* error);

// Command ids of "--inject firmware" that a campaign sends.
constexpr int kFirmwareInject = 0;
constexpr int kFirmwareRemove = 1;  // also deletes the acknowledgement at the address

// The arguments of the "--inject" command that injects a step: the group and its arguments, or
// "firmware" with the command id (0 inject, 1 remove) and the address.
std::vector<std::string> InjectWords(const CampaignStep& step,
                                     int firmwareCommand = kFirmwareInject);

// The "--inject" commands the runner sends for a step, one request per phase: inject, ask
// whether it ran, remove it and ask whether it is gone.
std::vector<std::string> ExecutedQueryWords(const CampaignStep& step);
std::vector<std::vector<std::string>> ClearCommands(const CampaignStep& step);

// A request to module "corvane" holding one "--inject" command per element, in order.
VXCDBMessage InjectRequest(const std::vector<std::vector<std::string>>& commands);

}  // namespace vxcdb
