// An owned model handle for tests, with a view of the record behind it.
#pragma once

#include <memory>

#include "model/model_impl.h"
#include "support/builders.h"
#include "zorp.h"

namespace zorp::test {

// Owning pointers over the C handles, for tests that pass handles around.
struct ModelDeleter {
  void operator()(zorp_model* m) const { zorp_model_destroy(m); }
};
struct SolDeleter {
  void operator()(zorp_sol* s) const { zorp_sol_destroy(s); }
};
using ModelPtr = std::unique_ptr<zorp_model, ModelDeleter>;
using SolPtr = std::unique_ptr<zorp_sol, SolDeleter>;

class ModelHandle {
 public:
  explicit ModelHandle(const Poly& p) : m_(zorp_model_create(p.get())) {}
  explicit ModelHandle(zorp_model* adopted) : m_(adopted) {}
  ~ModelHandle() { zorp_model_destroy(m_); }
  ModelHandle(const ModelHandle&) = delete;
  ModelHandle& operator=(const ModelHandle&) = delete;
  zorp_model* get() const { return m_; }
  const ModelImpl& impl() const { return zorp::model_impl(m_); }

 private:
  zorp_model* m_;
};

}  // namespace zorp::test
