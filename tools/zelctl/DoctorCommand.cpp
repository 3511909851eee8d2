#include "DoctorCommand.h"

#include <algorithm>
#include <memory>

#include "Arguments.h"
#include "DirectoryLock.h"
#include "DirectoryRepair.h"
#include "Examination.h"
#include "Options.h"
#include "Progress.h"
#include "Report.h"
#include "Signals.h"
#include "Text.h"

namespace zelctl {
namespace {

constexpr char kJsonOption[] = "--json";
constexpr char kRepairOption[] = "--repair";
constexpr std::size_t kIndent = 10;

struct Diagnosis {
  std::vector<Finding> findings;
  std::vector<bool> isRepaired;  // one a finding
  std::string backup;            // "" without one
};

// What is missing stays so until the client makes it, and is mended once nothing is in its way.
bool IsOpen(const std::vector<Finding>& findings, const Finding& wanted) {
  return std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
    return finding.id == std::string(wanted.id) && finding.file == wanted.file &&
           finding.repair != Repair::kNone;
  });
}

// A client may start as soon as the copy is made.
Diagnosis Diagnose(const std::string& directory) {
  const Progress progress("examining");
  std::unique_ptr<Examination> examination;
  {
    const DirectoryLock lock(directory);
    examination = std::make_unique<Examination>(directory);
  }
  const std::vector<Finding>& findings = examination->Findings();
  return {findings, std::vector<bool>(findings.size(), false), ""};
}

// What a second examination does not find any more is repaired.
Diagnosis DiagnoseAndRepair(const std::string& directory) {
  const Progress progress("examining and repairing");
  const DirectoryLock lock(directory);
  const Examination before(directory);
  DirectoryRepair repair(directory, before);
  repair.Run();
  Diagnosis diagnosis = {before.Findings(), {}, repair.Backup()};
  try {
    const Examination after(directory);
    for (const Finding& finding : diagnosis.findings) {
      diagnosis.isRepaired.push_back(finding.repair != Repair::kNone &&
                                     !IsOpen(after.Findings(), finding));
    }
  } catch (const Interrupted&) {
    throw Interrupted("; the repair was made, copies are in " + Quoted(repair.Backup()));
  }
  return diagnosis;
}

std::string Line(const std::string& title, const std::string& text) {
  const std::string begin = "  " + title;
  return begin + std::string(kIndent - begin.size(), ' ') + Wrapped(text, kIndent) + '\n';
}

std::string SummaryOf(const Diagnosis& diagnosis, bool isRepairing) {
  if (diagnosis.findings.empty()) return "nothing found\n";
  std::string text = Counted(diagnosis.findings.size(), "problem");
  if (isRepairing) {
    const auto repaired =
        std::count(diagnosis.isRepaired.begin(), diagnosis.isRepaired.end(), true);
    text += ", " + std::to_string(repaired) + " repaired";
  } else if (const auto repairable = std::count_if(
                 diagnosis.findings.begin(), diagnosis.findings.end(),
                 [](const Finding& finding) { return finding.repair != Repair::kNone; })) {
    text += "; --repair mends " + std::to_string(repairable) + ", after copies are made";
  }
  if (!diagnosis.backup.empty()) {
    text += "; copies, which may hold the key, are in " + diagnosis.backup +
            ": remove them once the client works";
  }
  return '\n' + Wrapped(text, 0) + '\n';
}

std::string Text(const Diagnosis& diagnosis, bool isRepairing) {
  std::string text;
  for (std::size_t i = 0; i < diagnosis.findings.size(); ++i) {
    const Finding& finding = diagnosis.findings[i];
    text += Wrapped(finding.file + ": " + finding.problem, 2) + '\n' +
            Line("cause", finding.cause) + Line("remedy", finding.remedy);
    if (isRepairing) {
      const char* const open = finding.repair == Repair::kNone ? "not by this tool" : "failed";
      text += Line("repair", diagnosis.isRepaired[i] ? "done" : open);
    }
  }
  return text + SummaryOf(diagnosis, isRepairing);
}

Json::Value DiagnosisJson(const std::string& directory, const Diagnosis& diagnosis) {
  Json::Value value(Json::objectValue);
  value["directory"] = directory;
  value["backup"] = diagnosis.backup;
  value["findings"] = Json::Value(Json::arrayValue);
  for (std::size_t i = 0; i < diagnosis.findings.size(); ++i) {
    const Finding& finding = diagnosis.findings[i];
    Json::Value one(Json::objectValue);
    one["id"] = finding.id;
    one["file"] = finding.file;
    one["problem"] = finding.problem;
    one["cause"] = finding.cause;
    one["remedy"] = finding.remedy;
    one["repairable"] = finding.repair != Repair::kNone;
    one["repaired"] = static_cast<bool>(diagnosis.isRepaired[i]);
    value["findings"].append(one);
  }
  return value;
}

bool Report(const std::string& directory, bool isRepairing, bool asJson) {
  const Diagnosis diagnosis = isRepairing ? DiagnoseAndRepair(directory) : Diagnose(directory);
  const bool printed =
      Print(asJson ? JsonText(DiagnosisJson(directory, diagnosis)) : Text(diagnosis, isRepairing));
  return printed && diagnosis.findings.empty();
}

}  // namespace

void ReportOn(const std::string& directory, const Examination& examination, std::string* text,
              Json::Value* json) {
  const std::vector<Finding>& findings = examination.Findings();
  const Diagnosis diagnosis = {findings, std::vector<bool>(findings.size(), false), ""};
  *text = Text(diagnosis, false);
  *json = DiagnosisJson(directory, diagnosis);
}

bool RunDoctor(const std::vector<std::string>& given, const std::atomic<bool>&) {
  const Arguments arguments(given, {kJsonOption, kRepairOption});
  if (arguments.Words().size() != 1) {
    throw UsageError("doctor needs one DIR, the data directory of a client");
  }
  const std::string& directory = arguments.Words()[0];
  CheckClientDirectory(directory);
  try {
    return Report(directory, arguments.Has(kRepairOption), arguments.Has(kJsonOption));
  } catch (const DirectoryInUse& error) {
    Complain(error.what());
    return false;
  }
}

}  // namespace zelctl
