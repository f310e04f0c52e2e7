#pragma once

#include <cstdint>
#include <limits>

#include "stream/data_source.h"

namespace corvane {

// Where CNetClient::ReceiveToWriter puts what arrives: a room (how many bytes
// it will take at most) and a write that reports how much it took.
class ReceiveWriter {
 public:
  virtual ~ReceiveWriter() = default;
  virtual int64_t Room() const = 0;
  // The count taken; less than `length` is a failure.
  virtual int Write(const char* data, int length) = 0;
};

// Writes into a data source the caller has opened for writing; its room is
// unbounded unless given.
class DataSourceWriter : public ReceiveWriter {
 public:
  explicit DataSourceWriter(DataSource& dest, int64_t room = std::numeric_limits<int64_t>::max())
      : dest_(dest), room_(room) {}
  int64_t Room() const override { return room_; }
  int Write(const char* data, int length) override { return dest_.Write(data, length); }

 private:
  DataSource& dest_;
  int64_t room_;
};

}  // namespace corvane
