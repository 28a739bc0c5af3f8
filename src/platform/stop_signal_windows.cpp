// Stop requests on Windows: the shutdown route, the tray icon's Exit, the end of
// the Windows session, or the console's Ctrl+C / Ctrl+Break / close events.
//
// The resident's main thread runs the tray icon's message loop: a hidden window
// of class "KestruneTrayDaemon" owns the notification-area icon. Where no window
// can be made (a service session, Wine without a display) the thread waits on a
// condition variable instead; the life cycle is the same.
#include <windows.h>
// shellapi.h needs the types of windows.h first.
#include <shellapi.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/stop_signal.hpp"

namespace kx::platform {
namespace {

constexpr UINT kTrayMessage = WM_APP + 1;
constexpr UINT_PTR kOpenCommand = 1;
constexpr UINT_PTR kExitCommand = 2;
// The tray's Open action always goes to the default port.
constexpr const char* kUiUrl = "http://127.0.0.1:9999/ui";

std::mutex g_lock;
std::condition_variable g_wake;
bool g_stopped = false;
std::atomic<HWND> g_window{nullptr};

BOOL WINAPI on_console_event(DWORD event) {
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT || event == CTRL_CLOSE_EVENT ||
      event == CTRL_SHUTDOWN_EVENT || event == CTRL_LOGOFF_EVENT) {
    request_stop();
    return TRUE;
  }
  return FALSE;
}

void open_ui() {
  ::ShellExecuteA(nullptr, "open", kUiUrl, nullptr, nullptr, SW_SHOWNORMAL);
}

void show_menu(HWND window) {
  HMENU menu = ::CreatePopupMenu();
  if (menu == nullptr) return;
  ::AppendMenuA(menu, MF_STRING, kOpenCommand, "Open Kestrune");
  ::AppendMenuA(menu, MF_SEPARATOR, 0, nullptr);
  ::AppendMenuA(menu, MF_STRING, kExitCommand, "Exit");
  POINT cursor{};
  ::GetCursorPos(&cursor);
  ::SetForegroundWindow(window);  // so the menu closes when the user clicks elsewhere
  UINT chosen = ::TrackPopupMenu(menu, TPM_RETURNCMD | TPM_NONOTIFY | TPM_RIGHTBUTTON, cursor.x,
                                 cursor.y, 0, window, nullptr);
  ::DestroyMenu(menu);
  if (chosen == kOpenCommand) open_ui();
  if (chosen == kExitCommand) ::DestroyWindow(window);
}

LRESULT CALLBACK tray_procedure(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  switch (message) {
    case kTrayMessage:
      switch (LOWORD(lparam)) {
        case WM_LBUTTONUP:
        case WM_LBUTTONDBLCLK:
          open_ui();
          return 0;
        case WM_RBUTTONUP:
        case WM_CONTEXTMENU:
          show_menu(window);
          return 0;
      }
      return 0;
    case WM_QUERYENDSESSION:
      return TRUE;
    case WM_CLOSE:
      ::DestroyWindow(window);
      return 0;
    case WM_DESTROY: {
      NOTIFYICONDATAA icon{};
      icon.cbSize = sizeof icon;
      icon.hWnd = window;
      icon.uID = 1;
      ::Shell_NotifyIconA(NIM_DELETE, &icon);
      ::PostQuitMessage(0);
      return 0;
    }
  }
  return ::DefWindowProcA(window, message, wparam, lparam);
}

HWND make_tray_window() {
  WNDCLASSA window_class{};
  window_class.lpfnWndProc = tray_procedure;
  window_class.hInstance = ::GetModuleHandleA(nullptr);
  window_class.lpszClassName = "KestruneTrayDaemon";
  if (::RegisterClassA(&window_class) == 0 && ::GetLastError() != ERROR_CLASS_ALREADY_EXISTS)
    return nullptr;
  HWND window = ::CreateWindowExA(0, "KestruneTrayDaemon", "Kestrune", 0, 0, 0, 0, 0, nullptr,
                                  nullptr, window_class.hInstance, nullptr);
  if (window == nullptr) return nullptr;
  NOTIFYICONDATAA icon{};
  icon.cbSize = sizeof icon;
  icon.hWnd = window;
  icon.uID = 1;
  icon.uFlags = NIF_MESSAGE | NIF_ICON | NIF_TIP;
  icon.uCallbackMessage = kTrayMessage;
  icon.hIcon = ::LoadIconA(nullptr, reinterpret_cast<LPCSTR>(IDI_APPLICATION));
  lstrcpynA(icon.szTip, "Kestrune", sizeof icon.szTip);
  ::Shell_NotifyIconA(NIM_ADD, &icon);  // without a notification area the loop still runs
  return window;
}

bool stopped() {
  std::lock_guard guard(g_lock);
  return g_stopped;
}

}  // namespace

void install_stop_signals() {
  ::SetConsoleCtrlHandler(on_console_event, TRUE);
}

void request_stop() {
  {
    std::lock_guard guard(g_lock);
    g_stopped = true;
  }
  g_wake.notify_all();
  if (HWND window = g_window.load()) ::PostMessageA(window, WM_CLOSE, 0, 0);
}

void wait_for_stop() {
  HWND window = make_tray_window();
  if (window != nullptr) {
    g_window = window;
    if (stopped()) ::PostMessageA(window, WM_CLOSE, 0, 0);  // asked before the window existed
    MSG message;
    while (::GetMessageA(&message, nullptr, 0, 0) > 0) {
      ::TranslateMessage(&message);
      ::DispatchMessageA(&message);
    }
    g_window = nullptr;
    {
      std::lock_guard guard(g_lock);
      g_stopped = true;  // Exit from the tray is a stop request too
    }
    return;
  }
  std::unique_lock guard(g_lock);
  g_wake.wait(guard, [] { return g_stopped; });
}

void ignore_broken_pipe() {}

}  // namespace kx::platform
