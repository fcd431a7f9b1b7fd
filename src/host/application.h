#pragma once
// The application object: it owns the scheduler, the browser launcher and the transceiver, runs one
// request handler per server definition, keeps the registry of form command handlers and takes the
// reports of all servers. The host entry builds one per server handle; a program of the static
// library builds its own.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/option_map.h"
#include "handlers/command_handler.h"
#include "handlers/content_handler.h"
#include "handlers/request_application.h"
#include "host/browser_launcher.h"
#include "host/server_definition.h"
#include "jobs/named_id_source.h"
#include "jobs/scheduler.h"
#include "platform/sync.h"
#include "transceiver/transceiver.h"

class ZrCgi;
class ZrCompression;
class ZrPersistentAppStorage;

/// Lock order: the handler lock before all others; the options' lock is taken last and never held
/// while calling out. Construction and destruction happen on one thread with no other call running;
/// everything else may be called from any thread where nothing else is said.
class ZrQuarnApplication2 {
 public:
  /// Sees every report of every server, on that server's thread, after the application acted on it.
  /// Exceptions, of whatever type, are dropped.
  using Observer = std::function<void(const ZrServerCallback_t&)>;
  /// Takes one access-log line, without line end, on the thread that sent the answer. Exceptions
  /// are dropped, and the line with them.
  using LogSink = std::function<void(std::string_view)>;

  /// The storage is not owned and outlives the application; it may be null (no stored pages). From
  /// startServers() on its named-value table is the application's, which guards it. The option
  /// "io_threads" is the most threads that receive, and that send what sockets did not take at once
  /// (1 to 16, one per core without it); with "io_threads_fixed" true they are there all the time.
  ZrQuarnApplication2(ZrPersistentAppStorage* storage, std::vector<ZrServerDefinition> servers,
                      ZrOptionMap options);
  ZrQuarnApplication2(const ZrQuarnApplication2&) = delete;
  ZrQuarnApplication2& operator=(const ZrQuarnApplication2&) = delete;

  /// Ends accept loops, work queues and running answers and waits for them; then releases the
  /// registered handlers, options and definitions, all connections and servers, and the tasks.
  virtual ~ZrQuarnApplication2();
  /// For derived applications; called by the host entry right after construction.
  virtual void afterCreate() {}
  /// Opens one server per definition, in order, and returns without waiting for any to listen.
  /// Throws what the making of a server throws (ZrException_SSL for a key pair that cannot be
  /// used); later servers are then not started. Call it once.
  virtual void startServers();
  /// For derived applications; called by the host entry before destruction.
  virtual void beforeStop() {}
  /// The object for commands without an id of their own: always null here.
  virtual ZrCommandHandler* nullQuery(const std::string& name);
  /// Enters the handler under its name, in the place of an earlier one of that name; returns it.
  /// Null is returned unchanged. The handler stays its owner's until Release() is called.
  virtual ZrCommandHandler* registerHandler(ZrCommandHandler* handler);
  /// A new unique name with the prefix "id".
  virtual std::string newId();
  /// The pointer given at construction.
  virtual ZrPersistentAppStorage* getStorage();
  /// Has the browser open protocol://address:port. An empty address with port 0 stands for the
  /// first server definition's. A launcher that refuses leaves a line for the user on standard
  /// output.
  virtual void openDocument(const std::string& address, std::int32_t port,
                            const std::string& protocol);
  /// Whether a handler of that name is registered.
  virtual bool hasHandler(const std::string& name);
  /// Lets the handler of that name answer the command; without one nothing happens. A handler that
  /// the answer's HandoverRecord() names takes its place.
  virtual void dispatchToHandler(const std::string& name, ZrXHeader& request,
                                 ZrXResponseHeader& answer, const std::string& command);
  /// Whether the storage holds a page of that name.
  virtual bool hasStoredValue(const std::string& name);
  /// Puts the stored page into the head as its body text, making an empty entry when there is none.
  /// Answers yes.
  virtual bool fillFromStorage(const std::string& name, ZrXHeader& head);
  virtual ZrTransceiver& getTransceiver();
  virtual ZrRinvalScheduler2& getScheduler();
  /// A copy of the options, with "tcp_port_http(s)" and "tcp_address_http(s)" once a server
  /// listens.
  virtual ZrOptionMap getOptions();
  /// Whether a form command may be answered: when a handler was ever registered, and in a derived
  /// application, which may do that in a way of its own. Without, large bodies are not kept.
  virtual bool takesCommands();

  /// Set these before startServers(). With a sink, access-log lines go there instead of the
  /// standard output.
  void setObserver(Observer observer) { observer_ = std::move(observer); }
  void setLogSink(LogSink sink) { logSink_ = std::move(sink); }
  /// Puts a content handler in front of the application's own, which it is made from; before
  /// startServers().
  void setContent(
      const std::function<std::shared_ptr<ZrContentHandler>(std::shared_ptr<ZrContentHandler>)>&
          make) {
    content_ = make(content_);
  }
  /// The first half of an orderly stop: no further peer is accepted; returns at once.
  void stopAccepting() { transceiver_.StopAccepting(); }
  /// Waits until the requests in progress are answered and their answers sent; whether they were in
  /// that time. The application is then destroyed.
  bool waitForAnswers(std::chrono::nanoseconds limit) { return transceiver_.WaitForAnswers(limit); }
  /// Has that return at once, now and later.
  void abandonAnswers() { transceiver_.AbandonAnswers(); }
  /// Ends the servers with the requests that they are answering, and waits for them; no operation
  /// of the application is called by a request afterwards. The destructor does this itself, but by
  /// then a derived application is gone: one that overrides what requests ask (nullQuery,
  /// dispatchToHandler, hasStoredValue, fillFromStorage) calls it at the start of its own
  /// destructor. Calling it again does nothing.
  void stopServers();

 private:
  /// Carries the questions of the request handlers to the operations above.
  class Questions;

  bool onServerEvent(ZrServerCallback_t& record);
  void OnListening(const ZrServerCallback_t& record);
  void OpenInBrowser(const std::string& url);

  // In the order of construction; destroyed from the last to the first. Servers report until the
  // transceiver is gone, so what takes their reports stands before it.
  ZrRinvalScheduler2 scheduler_;
  ZrBrowserLauncher launcher_;
  const std::unique_ptr<ZrRequestApplication> questions_;
  const std::shared_ptr<ZrCgi> scripts_;
  const std::shared_ptr<ZrCompression> compression_;
  std::shared_ptr<ZrContentHandler> content_;  // constant once servers run
  Observer observer_;                          // constant once servers run, like the sink
  LogSink logSink_;
  ZrTransceiver transceiver_;
  ZrMutex storageLock_;  // the named-value table, which several requests may ask at once
  ZrPersistentAppStorage* const storage_ ZR_PT_GUARDED_BY(storageLock_);
  std::vector<ZrServerDefinition> servers_;  // changed by startServers() only
  ZrMutex optionsLock_;
  ZrOptionMap options_ ZR_GUARDED_BY(optionsLock_);
  ZrRecursiveMutex handlerLock_;
  std::map<std::string, ZrCommandHandler*> handlers_ ZR_GUARDED_BY(handlerLock_);
  // That lock is held while a handler runs; a request that has none does not wait for it.
  std::atomic<bool> anyHandler_{false};
  ZrNamedIdSource idSource_;
};
