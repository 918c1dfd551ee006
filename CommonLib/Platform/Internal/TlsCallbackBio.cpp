#include "Platform/Internal/TlsCallbackBio.h"

#include <algorithm>

namespace ostrel {
namespace {

TlsCallbackChannel& channelOf(BIO* bio) { return *static_cast<TlsCallbackChannel*>(BIO_get_data(bio)); }

IoStatus knownStatus(std::int32_t status) {
  switch (status) {
    case ioCompleted:
    case ioWouldBlock:
    case ioClosedGracefully:
    case ioClosedAbruptly:
      return static_cast<IoStatus>(status);
    default:
      return ioFailed;
  }
}

int readBytes(BIO* bio, char* data, std::size_t capacity, std::size_t* transferred) {
  TlsCallbackChannel& channel = channelOf(bio);
  BIO_clear_retry_flags(bio);
  *transferred = 0;
  channel.readStatus = ioCompleted;
  // The peer may be waiting for what is unsent.
  if (channel.sendUnsent() != ioCompleted) {
    if (channel.writeStatus == ioWouldBlock) BIO_set_retry_read(bio);
    return 0;
  }
  if (channel.pendingReadStatus != ioCompleted) {
    channel.readStatus = channel.pendingReadStatus;
  } else {
    std::size_t count = capacity;
    channel.readStatus = knownStatus(channel.readCallback(channel.connection, data, &count));
    *transferred = count <= capacity ? count : 0;
  }
  if (*transferred > 0) {
    if (channel.readStatus != ioWouldBlock) channel.pendingReadStatus = channel.readStatus;
    channel.readStatus = ioCompleted;
    return 1;
  }
  if (channel.readStatus == ioWouldBlock) BIO_set_retry_read(bio);
  return 0;
}

int writeBytes(BIO* bio, const char* data, std::size_t length, std::size_t* transferred) {
  TlsCallbackChannel& channel = channelOf(bio);
  BIO_clear_retry_flags(bio);
  if (channel.gathers) {
    channel.unsent.append(data, length);
    *transferred = length;
    return 1;
  }
  const std::size_t before = channel.unsent.size();
  if (before > 0) {
    channel.unsent.append(data, length);
    channel.sendUnsent();
    // What is left of these bytes stays the caller's: it hands them in again.
    const std::size_t left = std::min(channel.unsent.size(), length);
    channel.unsent.resize(channel.unsent.size() - left);
    *transferred = length - left;
  } else {
    std::size_t count = length;
    channel.writeStatus = knownStatus(channel.writeCallback(channel.connection, data, &count));
    *transferred = count <= length ? count : 0;
  }
  if (*transferred > 0) return 1;  // a failure behind some of the bytes shows when the rest is written
  if (channel.writeStatus == ioWouldBlock) BIO_set_retry_write(bio);
  return 0;
}

long control(BIO* bio, int command, long /*number*/, void* /*pointer*/) {
  if (command == BIO_CTRL_FLUSH) return 1;
  if (command == BIO_CTRL_EOF) return channelOf(bio).readStatus == ioClosedGracefully ? 1 : 0;
  return 0;
}

int create(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

BIO_METHOD* makeMethod() {
  BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "callbacks");
  if (method == nullptr) return nullptr;
  BIO_meth_set_create(method, create);
  BIO_meth_set_read_ex(method, readBytes);
  BIO_meth_set_write_ex(method, writeBytes);
  BIO_meth_set_ctrl(method, control);
  return method;
}

}  // namespace

IoStatus TlsCallbackChannel::sendUnsent() {
  if (unsent.empty()) return ioCompleted;
  std::size_t count = unsent.size();
  writeStatus = knownStatus(writeCallback(connection, unsent.data(), &count));
  unsent.erase(0, std::min(count, unsent.size()));
  return writeStatus;
}

BIO* makeTlsCallbackBio(TlsCallbackChannel& channel) {
  static BIO_METHOD* const method = makeMethod();  // kept for the life of the process
  if (method == nullptr) return nullptr;
  BIO* bio = BIO_new(method);
  if (bio != nullptr) BIO_set_data(bio, &channel);
  return bio;
}

}  // namespace ostrel
