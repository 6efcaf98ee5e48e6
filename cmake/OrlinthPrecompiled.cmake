# The heavy headers of others, parsed once for the libraries and once for the programs (whose code is compiled
# differently). Every file still includes what it uses: the release preset builds without this.
set(ORLINTH_PRECOMPILED_HEADERS
  <asio/any_io_executor.hpp> <asio/awaitable.hpp> <asio/bind_cancellation_slot.hpp> <asio/co_spawn.hpp>
  <asio/experimental/awaitable_operators.hpp> <asio/io_context.hpp> <asio/post.hpp> <asio/steady_timer.hpp>
  <asio/strand.hpp> <asio/use_awaitable.hpp> <nlohmann/json.hpp>
  <filesystem> <functional> <map> <memory> <mutex> <optional> <span> <string> <vector>)
# The same for what draws.
set(ORLINTH_PRECOMPILED_QT_HEADERS <QApplication> <QKeyEvent> <QPainter> <QPainterPath> <QTimer> <QWidget>)
