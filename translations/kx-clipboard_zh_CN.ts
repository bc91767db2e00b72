<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>ClipboardWatcher</name>
    <message>
        <source>Stop the running paste and paste the new files?</source>
        <translation>停止正在进行的粘贴，并粘贴新的文件吗？</translation>
    </message>
    <message>
        <source>Other files were copied on the remote desktop while a paste runs. It goes on unless you stop it; the files it has completed stay where they are.</source>
        <translation>粘贴进行期间，远程桌面上复制了其他文件。除非您停止，粘贴会继续进行；已完成的文件会保留在原处。</translation>
    </message>
    <message>
        <source>Keep pasting</source>
        <translation>继续粘贴</translation>
    </message>
    <message>
        <source>Stop and paste the new files</source>
        <translation>停止并粘贴新的文件</translation>
    </message>
</context>
<context>
    <name>ContentsText</name>
    <message>
        <source>1 item</source>
        <translation>1 个项目</translation>
    </message>
    <message>
        <source>%L1 items</source>
        <translation>%L1 个项目</translation>
    </message>
    <message>
        <source>%1 (%2)</source>
        <translation>%1（%2）</translation>
    </message>
</context>
<context>
    <name>NotificationTrigger</name>
    <message>
        <source>Files copied on the remote desktop</source>
        <translation>远程桌面上复制了文件</translation>
    </message>
    <message>
        <source>Choose Paste… to save them in a folder of yours.</source>
        <translation>选择“粘贴…”可将它们保存到您的文件夹。</translation>
    </message>
    <message>
        <source>Sent to the remote desktop</source>
        <translation>已发送到远程桌面</translation>
    </message>
    <message>
        <source>Sending to the remote desktop…</source>
        <translation>正在发送到远程桌面…</translation>
    </message>
    <message>
        <source>The remote desktop has received %1 of your copy.</source>
        <translation>远程桌面已收到您复制的 %1。</translation>
    </message>
    <message>
        <source>The remote desktop is fetching %1 of your copy.</source>
        <translation>远程桌面正在获取您复制的 %1。</translation>
    </message>
    <message>
        <source>Press Ctrl+V in a folder of your file manager to paste them there, or choose “Paste to folder…” to pick one.</source>
        <translation>在文件管理器的文件夹中按 Ctrl+V 即可粘贴，或选择“粘贴到文件夹…”另选文件夹。</translation>
    </message>
    <message>
        <source>Paste to folder…</source>
        <translation>粘贴到文件夹…</translation>
    </message>
</context>
<context>
    <name>PasteEndText</name>
    <message>
        <source>You stopped the paste.</source>
        <translation>您停止了粘贴。</translation>
    </message>
    <message>
        <source>You stopped the paste while %1 was being received.</source>
        <translation>您在接收 %1 时停止了粘贴。</translation>
    </message>
    <message>
        <source>A newer paste took its place while %1 was being received.</source>
        <translation>接收 %1 时，新的粘贴取代了它。</translation>
    </message>
    <message>
        <source>You chose Cancel when asked about names that were already taken.</source>
        <translation>在询问同名项目时，您选择了“取消”。</translation>
    </message>
    <message>
        <source>The connection to the remote desktop was lost. It comes back by itself: paste again once the remote desktop offers the files again.</source>
        <translation>与远程桌面的连接已断开。连接会自动恢复：待远程桌面再次提供这些文件后，请重新粘贴。</translation>
    </message>
    <message>
        <source>Something else was copied on the remote desktop while you chose the folder, so nothing was pasted. Paste again to get what is copied now.</source>
        <translation>选择文件夹时，远程桌面上复制了其他内容，因此没有粘贴任何文件。再次粘贴即可得到现在复制的内容。</translation>
    </message>
    <message>
        <source>Something else was copied on the remote desktop while %1 was being received, so the paste stopped rather than mix the two copies.</source>
        <translation>接收 %1 时，远程桌面上复制了其他内容；为避免混入两份复制的文件，粘贴已停止。</translation>
    </message>
    <message>
        <source>%1 shows the files of the remote desktop themselves, and nothing can be pasted there. Choose another folder.</source>
        <translation>%1 显示的是远程桌面上的文件本身，无法粘贴到那里。请选择其他文件夹。</translation>
    </message>
    <message>
        <source>Nothing new was saved in %1: every name was already taken there.</source>
        <translation>%1 中没有保存新的文件：所有名称都已被占用。</translation>
    </message>
    <message>
        <source>One replaced the file of the same name that was there.</source>
        <translation>其中 1 个替换了原有的同名文件。</translation>
    </message>
    <message>
        <source>%1 replaced the files of the same names that were there.</source>
        <translation>其中 %1 个替换了原有的同名文件。</translation>
    </message>
    <message>
        <source>The remote desktop stopped answering for a minute while %1 was being received.</source>
        <translation>接收 %1 时，远程桌面已有一分钟没有响应。</translation>
    </message>
    <message>
        <source>The paste needs %1, and only %2 are free on the disk of %3. Free some space, or choose another folder.</source>
        <translation>此次粘贴需要 %1，而 %3 所在磁盘只剩 %2 可用。请释放一些空间，或选择其他文件夹。</translation>
    </message>
    <message>
        <source>The disk of %1 became full while %2 was being written.</source>
        <translation>写入 %2 时，%1 所在的磁盘已满。</translation>
    </message>
    <message>
        <source>%1 could not be written: you have no permission to write there.</source>
        <translation>无法写入 %1：您没有在此处写入的权限。</translation>
    </message>
    <message>
        <source>The remote copy holds a name that would land outside the chosen folder (%1): it was not written.</source>
        <translation>远程复制的内容中有一个名称会落到所选文件夹之外（%1）：它没有被写入。</translation>
    </message>
    <message>
        <source>%1 could not be written: %2.</source>
        <translation>无法写入 %1：%2。</translation>
    </message>
    <message>
        <source>The remote desktop sent data that could not be read.</source>
        <translation>远程桌面发送了无法读取的数据。</translation>
    </message>
    <message>
        <source>The remote copy has more than 1,000,000 files: it is too large to paste.</source>
        <translation>远程复制的内容超过 1,000,000 个文件，太大，无法粘贴。</translation>
    </message>
    <message>
        <source>1 file (%1) was saved in %2.</source>
        <translation>已将 1 个文件（%1）保存到 %2。</translation>
    </message>
    <message>
        <source>%1 files (%2) were saved in %3.</source>
        <translation>已将 %1 个文件（%2）保存到 %3。</translation>
    </message>
    <message>
        <source>One got a new name, as a file of the same name was already there.</source>
        <translation>其中 1 个文件因已有同名文件而使用了新名称。</translation>
    </message>
    <message>
        <source>%1 got new names, as files of the same names were already there.</source>
        <translation>其中 %1 个文件因已有同名文件而使用了新名称。</translation>
    </message>
    <message>
        <source>No file was saved, and no half-written file was left.</source>
        <translation>没有保存任何文件，也没有留下写了一半的文件。</translation>
    </message>
    <message>
        <source>1 file was saved in %1 before the paste ended; no half-written file was left.</source>
        <translation>粘贴结束前已将 1 个文件保存到 %1；没有留下写了一半的文件。</translation>
    </message>
    <message>
        <source>%1 files were saved in %2 before the paste ended; no half-written file was left.</source>
        <translation>粘贴结束前已将 %1 个文件保存到 %2；没有留下写了一半的文件。</translation>
    </message>
    <message>
        <source>1 file was skipped: the one you had stays as it was.</source>
        <translation>跳过了 1 个文件：您原有的文件保持不变。</translation>
    </message>
    <message>
        <source>%1 files were skipped: the ones you had stay as they were.</source>
        <translation>跳过了 %1 个文件：您原有的文件保持不变。</translation>
    </message>
</context>
<context>
    <name>QObject</name>
    <message>
        <source>Names already taken</source>
        <translation>名称已被占用</translation>
    </message>
    <message numerus="yes">
        <source>%n of the pasted items already exist in “%1”:</source>
        <translation>
            <numerusform>“%1”中已存在 %n 个同名项目：</numerusform>
        </translation>
    </message>
    <message>
        <source>Keep both: the pasted item gets a new name, such as “%1”.
Replace: the pasted file takes the place of yours.
Skip: yours stays as it is, and the pasted one is left out.
Folders are never replaced: the pasted ones are merged into yours.</source>
        <translation>保留两者：粘贴的项目使用新名称，例如“%1”。
替换：粘贴的文件取代您原有的文件。
跳过：您原有的文件保持不变，不粘贴该文件。
文件夹永远不会被替换：粘贴的文件夹会与您的文件夹合并。</translation>
    </message>
    <message>
        <source>Keep both</source>
        <translation>保留两者</translation>
    </message>
    <message>
        <source>Replace</source>
        <translation>替换</translation>
    </message>
    <message>
        <source>Skip</source>
        <translation>跳过</translation>
    </message>
    <message>
        <source>Paste %1 (%2) into…</source>
        <translation>将 %1（%2）粘贴到…</translation>
    </message>
    <message>
        <source>Paste here</source>
        <translation>粘贴到这里</translation>
    </message>
    <message>
        <source>The folder “%1” does not exist. Make it, and paste there?</source>
        <translation>文件夹“%1”不存在。要创建它并粘贴到那里吗？</translation>
    </message>
    <message>
        <source>Make the folder</source>
        <translation>创建文件夹</translation>
    </message>
    <message>
        <source>The folder “%1” could not be made.</source>
        <translation>无法创建文件夹“%1”。</translation>
    </message>
    <message>
        <source>Paste %1 into…</source>
        <translation>将 %1 粘贴到…</translation>
    </message>
</context>
<context>
    <name>TrayTrigger</name>
    <message>
        <source>Paste to folder…</source>
        <translation>粘贴到文件夹…</translation>
    </message>
    <message>
        <source>Quit</source>
        <translation>退出</translation>
    </message>
    <message>
        <source>Connected to the remote desktop</source>
        <translation>已连接到远程桌面</translation>
    </message>
    <message>
        <source>Connection lost; reconnecting…</source>
        <translation>连接已断开，正在重新连接…</translation>
    </message>
    <message>
        <source>Connecting to the remote desktop…</source>
        <translation>正在连接远程桌面…</translation>
    </message>
    <message>
        <source>No files on the remote clipboard</source>
        <translation>远程剪贴板上没有文件</translation>
    </message>
    <message>
        <source>Files on the remote clipboard</source>
        <translation>远程剪贴板上有文件</translation>
    </message>
    <message>
        <source>%1, %2 on the remote clipboard</source>
        <translation>远程剪贴板上有 %1，共 %2</translation>
    </message>
    <message>
        <source>%1 on the remote clipboard</source>
        <translation>远程剪贴板上有 %1</translation>
    </message>
    <message>
        <source>%1 sent to the remote desktop</source>
        <translation>%1 已发送到远程桌面</translation>
    </message>
    <message>
        <source>Sending %1 to the remote desktop…</source>
        <translation>正在将 %1 发送到远程桌面…</translation>
    </message>
</context>
<context>
    <name>ViewController</name>
    <message>
        <source>Choose another folder…</source>
        <translation>选择其他文件夹…</translation>
    </message>
    <message>
        <source>Waiting for the remote desktop…</source>
        <translation>正在等待远程桌面…</translation>
    </message>
    <message>
        <source>Stop</source>
        <translation>停止</translation>
    </message>
    <message>
        <source>Open folder</source>
        <translation>打开文件夹</translation>
    </message>
    <message>
        <source>Receiving files</source>
        <translation>正在接收文件</translation>
    </message>
    <message>
        <source>File %1 of %2 — %3 of %4</source>
        <translation>第 %1 个文件，共 %2 个 — %3 / %4</translation>
    </message>
    <message>
        <source>%1 — %2 h %3 min left</source>
        <translation>%1 — 剩余 %2 小时 %3 分钟</translation>
    </message>
    <message>
        <source>%1/s</source>
        <translation>%1/秒</translation>
    </message>
    <message>
        <source>%1% — Receiving files</source>
        <translation>%1% — 正在接收文件</translation>
    </message>
    <message>
        <source>to %1</source>
        <translation>保存到 %1</translation>
    </message>
    <message>
        <source>Estimating the time left…</source>
        <translation>正在估算剩余时间…</translation>
    </message>
    <message>
        <source>%1 — %2 s left</source>
        <translation>%1 — 剩余 %2 秒</translation>
    </message>
    <message>
        <source>%1 — %2 min left</source>
        <translation>%1 — 剩余 %2 分钟</translation>
    </message>
    <message>
        <source>Done</source>
        <translation>完成</translation>
    </message>
    <message>
        <source>Not completed</source>
        <translation>未完成</translation>
    </message>
    <message>
        <source>Stop this paste?</source>
        <translation>要停止此次粘贴吗？</translation>
    </message>
    <message>
        <source>Files already complete stay in the folder; the one being written is removed.</source>
        <translation>已完成的文件会留在文件夹中；正在写入的文件将被删除。</translation>
    </message>
    <message>
        <source>Keep pasting</source>
        <translation>继续粘贴</translation>
    </message>
</context>
</TS>
