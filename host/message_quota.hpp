// What messages may take within gRPC. For servers and whoever calls them.
#pragma once

#include <grpcpp/resource_quota.h>

#include <cstdint>
#include <memory>

namespace kel::host {

// Room for the largest messages of so many calls. gRPC compares a message with the limit to it only
// when all of it is there; until then nothing but this bounds what a stranger sends. Beyond it gRPC
// takes in less at a time and, if that does not do, ends calls that are on their way.
std::unique_ptr<grpc::ResourceQuota> messageQuota(uint32_t calls, uint32_t messageBytes);

}  // namespace kel::host
