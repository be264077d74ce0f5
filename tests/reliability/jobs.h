// Jobs for the concurrency test: each computes one family's outputs from
// inputs that all jobs share read-only, into memory of its own, and returns
// every output byte so that runs can be compared bit for bit.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace velr::reliability {

class Bytes {
 public:
  template <class T>
  void add(const T* p, size_t n) {
    const auto* b = reinterpret_cast<const uint8_t*>(p);
    data_.insert(data_.end(), b, b + n * sizeof(T));
  }
  template <class T>
  void add(const std::vector<T>& v) {
    add(v.data(), v.size());
  }
  void status(int s) {
    add(&s, 1);
    if (s != 0) lastStatus_ = s;
  }
  const std::vector<uint8_t>& data() const { return data_; }
  // A job is meant to do real work: the last non-zero status it saw, if any.
  int lastStatus() const { return lastStatus_; }

 private:
  std::vector<uint8_t> data_;
  int lastStatus_ = 0;
};

struct Job {
  std::string name;
  std::function<Bytes()> run;
  bool parallel = false;  // opens a parallel region of its own
};

// Each family appends its jobs; the shared inputs live in the family's
// translation unit and are built on first use, before any thread starts.
void addShadeJobs(std::vector<Job>& jobs);
void addShJobs(std::vector<Job>& jobs);
void addVolumeJobs(std::vector<Job>& jobs);

}  // namespace velr::reliability
