#pragma once

#include <Tolbin/Debug.h>

#include <string>
#include <utility>
#include <vector>

//! Collects the assertion and contract reports of a scope instead of printing them.
class ReportCapture
{
public:
    ReportCapture()
        : mPrevious(Tolbin::debug::SetReportHandler([this](const Tolbin::debug::Report& inReport, bool&) {
              mReports.push_back(inReport);
              return false;
          }))
    {
    }

    ~ReportCapture() { Tolbin::debug::SetReportHandler(std::move(mPrevious)); }

    ReportCapture(const ReportCapture&) = delete;
    ReportCapture& operator=(const ReportCapture&) = delete;

    const std::vector<Tolbin::debug::Report>& Reports() const { return mReports; }

    //! Each report as "expression|message", and forgets them.
    std::vector<std::string> Take()
    {
        std::vector<std::string> texts;
        for (const Tolbin::debug::Report& report : mReports)
        {
            texts.push_back(report.expression + "|" + report.message);
        }
        mReports.clear();
        return texts;
    }

private:
    std::vector<Tolbin::debug::Report> mReports;
    Tolbin::debug::ReportHandler mPrevious;
};

using ReportTexts = std::vector<std::string>;
