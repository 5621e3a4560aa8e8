#pragma once

#include "Mox/Cell.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/ActivityManager.h"
#include "Vel/entity/Dir.h"
#include "Vel/text/Trace.h"

#include "FakeSystem.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

// A process that has not yet asked anything about its cell, in a world of the test's making.
class CellTest : public testing::Test {
protected:
    CellTest() {
        Vel::Trace::levelsIs("");
        Vel::activityManager().systemNameIs("");
        Vel::globalDir()->entryDelAll();
    }
    ~CellTest() override {
        Vel::Trace::sinkIs(nullptr);
        Vel::Trace::levelsIs("");
        Vel::activityManager().systemNameIs("");
        Vel::globalDir()->entryDelAll();
    }

    // The process's status entity, or null while there is none.
    static Vel::Ptr<Cell::Status> status() { return Vel::ptr_cast<Cell::Status>(Vel::globalDir()->entity("/ql/cell")); }

    // Collects from now on the ids under which the entity's observers are told.
    void observe(Vel::Entity const& entity) {
        notifiee_ = Vel::notifieeOf(entity, [this](Vel::AttributeId id) { notified.push_back(id); });
    }

    // Collects from now on the trace records of a facility's levels, as "Cell/0 /src/Mox/Cell:110 function: text".
    void traceLevels(std::string const& levels) {
        Vel::Trace::sinkIs([this](Vel::TraceRecord const& r) {
            traced.push_back(std::string(r.facility) + "/" + std::to_string(r.level) + " " + r.file + ":" +
                             std::to_string(r.line) + " " + r.function + ": " + std::string(r.text));
        });
        Vel::Trace::levelsIs(levels);
    }

    FakeSystem world;
    std::vector<Vel::AttributeId> notified;
    std::vector<std::string> traced;

private:
    std::unique_ptr<Vel::Notifiee> notifiee_;
};

// The text of the exception E that f throws; a failed test and an empty text when it throws none.
template <class E, class F> std::string textOf(F f) {
    try {
        f();
    } catch (E const& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

// The errno of the Vel::ErrnoException that f throws; a failed test and 0 when it throws none.
template <class F> int errnoOf(F f) {
    try {
        f();
    } catch (Vel::ErrnoException const& error) {
        return error.error();
    }
    ADD_FAILURE() << "nothing was thrown";
    return 0;
}
