#include <windows.h>
// After windows.h:
#include <aclapi.h>
#include <bcrypt.h>

#include <memory>
#include <vector>

#include "platform/owner_only_file.hpp"

namespace kx::platform {
namespace {

bool fail(std::string& reason, const char* what) {
  reason = std::string(what) + " failed (error " + std::to_string(::GetLastError()) + ")";
  return false;
}

// A DACL with one entry, full control for the current user; protected, so that
// nothing is inherited from the folder.
struct OwnerOnlyAcl {
  std::vector<unsigned char> user;  // TOKEN_USER
  std::vector<unsigned char> acl;
  SECURITY_DESCRIPTOR descriptor{};

  bool build(std::string& reason) {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
      return fail(reason, "OpenProcessToken");
    DWORD size = 0;
    ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    user.resize(size);
    bool got = size > 0 && ::GetTokenInformation(token, TokenUser, user.data(), size, &size);
    ::CloseHandle(token);
    if (!got) return fail(reason, "GetTokenInformation");
    PSID sid = reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid;
    DWORD acl_size = sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) + ::GetLengthSid(sid);
    acl.resize(acl_size);
    PACL list = reinterpret_cast<PACL>(acl.data());
    if (!::InitializeAcl(list, acl_size, ACL_REVISION) ||
        !::AddAccessAllowedAce(list, ACL_REVISION, GENERIC_ALL, sid))
      return fail(reason, "building the ACL");
    if (!::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(&descriptor, TRUE, list, FALSE) ||
        !::SetSecurityDescriptorControl(&descriptor, SE_DACL_PROTECTED, SE_DACL_PROTECTED))
      return fail(reason, "building the security descriptor");
    return true;
  }
  PACL list() { return reinterpret_cast<PACL>(acl.data()); }
};

}  // namespace

bool write_owner_only_file(const std::filesystem::path& path, std::string_view data,
                           std::string& reason) {
  OwnerOnlyAcl owner;
  if (!owner.build(reason)) return false;
  std::filesystem::path temp = path;
  temp += ".tmp" + std::to_string(::GetCurrentProcessId());
  ::DeleteFileW(temp.c_str());
  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), &owner.descriptor, FALSE};
  HANDLE file = ::CreateFileW(temp.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return fail(reason, "CreateFile");
  bool ok = true;
  for (std::string_view rest = data; ok && !rest.empty();) {
    DWORD written = 0;
    ok = ::WriteFile(file, rest.data(), static_cast<DWORD>(rest.size()), &written, nullptr) ||
         fail(reason, "WriteFile");
    rest.remove_prefix(written);
  }
  if (ok && !::FlushFileBuffers(file)) ok = fail(reason, "FlushFileBuffers");
  ::CloseHandle(file);
  if (ok && !::MoveFileExW(temp.c_str(), path.c_str(),
                           MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
    ok = fail(reason, "MoveFileEx");
  if (!ok) ::DeleteFileW(temp.c_str());
  return ok;
}

bool restrict_to_owner(const std::filesystem::path& path, std::string& reason) {
  OwnerOnlyAcl owner;
  if (!owner.build(reason)) return false;
  std::wstring name = path.wstring();
  DWORD status = ::SetNamedSecurityInfoW(
      name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
      nullptr, nullptr, owner.list(), nullptr);
  if (status != ERROR_SUCCESS) {
    reason = "SetNamedSecurityInfo failed (error " + std::to_string(status) + ")";
    return false;
  }
  return true;
}

bool readable_by_others(const std::filesystem::path&) {
  return false;
}

bool secure_random(unsigned char* out, std::size_t size) {
  return BCRYPT_SUCCESS(
      ::BCryptGenRandom(nullptr, out, static_cast<ULONG>(size), BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

}  // namespace kx::platform
