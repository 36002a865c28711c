# Most of what the compiler reads for a source is Qt's and the standard library's headers. Targets
# named here share them as one precompiled header. Builds with CMAKE_DISABLE_PRECOMPILE_HEADERS, which
# are those of the packages and of the benchmarks, show whether each source includes what it uses.

# Without this ccache cannot tell what came from a precompiled header, and stores nothing.
add_compile_options("$<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>")

# trelan_add_precompiled(<name> [LIBRARIES <target>...] HEADERS <header>...)
#
# A precompiled header for targets that are compiled with the same options.
function(trelan_add_precompiled name)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "LIBRARIES;HEADERS")
    set(source "${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp") # a target has to have one
    file(CONFIGURE OUTPUT "${source}" CONTENT "")
    add_library(${name} OBJECT EXCLUDE_FROM_ALL "${source}")
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
    target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# trelan_use_precompiled(<name> <target>...)
function(trelan_use_precompiled name)
    foreach(target IN LISTS ARGN)
        target_precompile_headers(${target} REUSE_FROM ${name})
    endforeach()
endfunction()

set(TRELAN_COMMON_HEADERS
    <QtCore/QCoreApplication>
    <QtCore/QDateTime>
    <QtCore/QDebug>
    <QtCore/QElapsedTimer>
    <QtCore/QJsonArray>
    <QtCore/QJsonDocument>
    <QtCore/QJsonObject>
    <QtCore/QLoggingCategory>
    <QtCore/QMutex>
    <QtCore/QPointer>
    <QtCore/QQueue>
    <QtCore/QSet>
    <QtCore/QSharedPointer>
    <QtCore/QSocketNotifier>
    <QtCore/QStringList>
    <QtCore/QTextCodec>
    <QtCore/QThread>
    <QtCore/QTimer>
    <QtCore/QUuid>
    <QtCore/QVariantMap>
    <QtCore/QVector>
    <QtNetwork/QHostAddress>
    <QtNetwork/QTcpSocket>
    <algorithm>
    <array>
    <atomic>
    <chrono>
    <condition_variable>
    <deque>
    <functional>
    <map>
    <memory>
    <mutex>
    <optional>
    <string>
    <string_view>
    <thread>
    <unordered_map>
    <vector>)
