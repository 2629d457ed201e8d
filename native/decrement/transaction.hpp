// A key change as one transaction: everything a rebuild can touch is held on entry and put
// back unless the change commits, so a failed rebuild never leaves a table reading its new
// keys while computing with its old rates. Holding costs no copies: rebuilds replace the
// vectors instead of writing into them; of the private source copy, which a blend writes
// into, the frame and the sex list are held.
#pragma once

#include "decrement/state.hpp"

#include <cstdint>
#include <utility>

namespace veltrane::decrement {

// The table's source and, when it is the table's own copy, the two fields a blend replaces.
struct SourceState {
    py::ref table, data, valid_sexes;
    bool private_copy = false;
};
SourceState capture_source(TableObject* t);
// Puts the state back; the frame and sex list are written back into the private copy.
void restore_source(TableObject* t, SourceState& s);

// What a batch rollback needs beside the batch snapshot's keys and vectors: the table source
// (with the frame and sex list of a private copy, which a blend in the block rewrites) and the
// cause split and modification record of the vector in force, held without that vector.
struct RollbackExtras {
    SourceState source;
    py::ref cause_parts;   // (labels, udd, rates), or null when no split is in force
    py::ref record_parts;  // (items, decimals), or null when no record is in force
};
RollbackExtras capture_extras(TableObject* t);
// Puts them back once the snapshot is restored, pairing the split and the record with the
// restored vector.
void restore_extras(TableObject* t, const RollbackExtras& e);

class KeyChange {
public:
    explicit KeyChange(TableObject* t)
        : t_(t),
          source_(capture_source(t)),
          sex_(t->sex.dup()),
          cohort_(t->cohort.dup()),
          duration_(t->duration.dup()),
          unisex_blend_(t->unisex_blend.dup()),
          decrement_base_(t->decrement_base.dup()),
          decrement_(t->decrement.dup()),
          w_mod_(t->w_mod.dup()),
          lx_(t->lx.dup()),
          lx_raw_(t->lx_raw.dup()),
          px_(t->px.dup()),
          qx_(t->qx.dup()),
          decimals_(t->decimals_decrement_cache.dup()),
          cause_split_(t->cause_split.dup()),
          scalar_columns_(std::move(t->scalar_columns)),
          rebuilds_(t->rebuilds_since_calc),
          config_version_(t->caches_config_version),
          select_duration_set_(t->select_duration_set),
          modified_(t->modified),
          pending_(t->metadata_pending) {}

    KeyChange(const KeyChange&) = delete;
    KeyChange& operator=(const KeyChange&) = delete;

    ~KeyChange() {
        if (committed_) return;
        // Swap the held values in; what the failed change made is released with this object.
        restore_source(t_, source_);
        std::swap(t_->sex, sex_);
        std::swap(t_->cohort, cohort_);
        std::swap(t_->duration, duration_);
        std::swap(t_->unisex_blend, unisex_blend_);
        std::swap(t_->decrement_base, decrement_base_);
        std::swap(t_->decrement, decrement_);
        std::swap(t_->w_mod, w_mod_);
        std::swap(t_->lx, lx_);
        std::swap(t_->lx_raw, lx_raw_);
        std::swap(t_->px, px_);
        std::swap(t_->qx, qx_);
        std::swap(t_->decimals_decrement_cache, decimals_);
        std::swap(t_->cause_split, cause_split_);
        std::swap(t_->scalar_columns, scalar_columns_);
        t_->rebuilds_since_calc = rebuilds_;
        t_->caches_config_version = config_version_;
        t_->select_duration_set = select_duration_set_;
        t_->modified = modified_;
        t_->metadata_pending = pending_;
    }

    // The scalar columns are taken out for the change (a rebuild would drop them anyway) and
    // come back only with the state they belong to.
    void commit() noexcept { committed_ = true; }

private:
    TableObject* t_;
    SourceState source_;
    py::ref sex_, cohort_, duration_, unisex_blend_, decrement_base_, decrement_, w_mod_, lx_, lx_raw_, px_,
        qx_, decimals_, cause_split_;
    ScalarColumnsPtr scalar_columns_;
    long rebuilds_;
    std::uint64_t config_version_;
    bool select_duration_set_, modified_, pending_;
    bool committed_ = false;
};

}  // namespace veltrane::decrement
